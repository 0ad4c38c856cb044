// HugePageBlock: a large block of memory, on huge pages where the system provides them.
//
// The symbols of a large program take many megabytes, which are filled once and then accessed at
// random. On pages of 4 KiB, filling costs one page fault per 4 KiB, and nearly every random access
// misses the TLB.

#pragma once

#include <cstddef>
#include <utility>

namespace symforge_internal {

class HugePageBlock {
 public:
  // Sizes and addresses are multiples of this, in bytes.
  static constexpr size_t kUnit = 2 * 1024 * 1024;

  HugePageBlock() = default;
  // Allocates `size` zeroed bytes, aligned to kUnit. `size` is a multiple of kUnit. Throws
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

  // Grows the block to `size` bytes, a multiple of kUnit; the added bytes are zero. Pages are
  // remapped, not copied, and the address may change. On failure throws std::bad_alloc and leaves
  // the block unchanged.
  void enlarge(size_t size);

  char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  char* data_ = nullptr;
  size_t size_ = 0;
};

// Advises the kernel to use huge pages for memory allocated elsewhere, where whole ones fit. For
// large blocks that are about to be filled.
void prefer_huge_pages(char* block, size_t size);

}  // namespace symforge_internal
