// Input in memory that ends at a guard page.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace builders {

// A copy of some bytes that ends directly before an inaccessible page, so that a read beyond the
// end crashes.
class GuardedBlock {
 public:
  explicit GuardedBlock(std::string_view bytes);
  ~GuardedBlock();
  GuardedBlock(const GuardedBlock&) = delete;
  GuardedBlock& operator=(const GuardedBlock&) = delete;

  char* data() const { return data_; }
  size_t size() const { return size_; }
  uint64_t address() const { return reinterpret_cast<uint64_t>(data_); }
  void make_read_only();

 private:
  char* mapping_;
  size_t mapping_size_;
  char* data_;
  size_t size_;
};

}  // namespace builders
