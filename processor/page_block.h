// PageBlock: a large block of memory on huge pages where the system offers them.
//
// A module of a large program is searched all over at random: on pages of 4 KiB nearly each access
// also misses the TLB, and filling the memory costs a page fault every 4 KiB.

#pragma once

#include <cstddef>
#include <utility>

namespace google_breakpad {

class PageBlock {
 public:
  // The granularity of blocks, in bytes; what the last block of a user leaves unused is lost.
  static constexpr size_t kUnit = 2 * 1024 * 1024;

  PageBlock() = default;
  // Zeroed memory of `size` bytes, a multiple of kUnit, at an address that is one too. Throws
  // std::bad_alloc.
  explicit PageBlock(size_t size);
  ~PageBlock();
  PageBlock(PageBlock&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  PageBlock& operator=(PageBlock&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
  }

  char* data() const { return data_; }

 private:
  char* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace google_breakpad
