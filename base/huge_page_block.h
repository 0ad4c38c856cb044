// HugePageBlock: a large block of memory on huge pages where the system offers them.
//
// The symbols of a large program are many megabytes that are filled once and searched all over: on
// pages of 4 KiB filling costs a page fault every 4 KiB, and nearly each access at random also
// misses the TLB.

#pragma once

#include <cstddef>
#include <utility>

namespace symforge_internal {

class HugePageBlock {
 public:
  // The granularity of blocks, in bytes; what the last block of a user leaves unused is lost.
  static constexpr size_t kUnit = 2 * 1024 * 1024;

  HugePageBlock() = default;
  // Zeroed memory of `size` bytes, a multiple of kUnit, at an address that is one too. Throws
  // std::bad_alloc.
  explicit HugePageBlock(size_t size);
  ~HugePageBlock();
  HugePageBlock(HugePageBlock&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  HugePageBlock& operator=(HugePageBlock&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
  }

  // Makes the block larger, to a multiple of kUnit; what is new is zeroed. The content moves with
  // its pages, without a copy. Throws std::bad_alloc and leaves the block as it is.
  void enlarge(size_t size);

  char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  char* data_ = nullptr;
  size_t size_ = 0;
};

// Asks for huge pages under memory that comes from elsewhere, as far as they fit into it. For large
// blocks that are about to be filled.
void prefer_huge_pages(char* block, size_t size);

}  // namespace symforge_internal
