#include "base/arena.h"

#include <algorithm>

namespace symforge_internal {

// Block sizes double from 4 KiB up to the size of a huge page, so that a small module stays small.
// An allocation that takes a large part of the next block gets a block of its own; the block being
// filled stays in use.
void* Arena::allocate_in_new_block(size_t bytes) {
  constexpr size_t kFirst = 4 * 1024;
  const size_t next = std::clamp(size_ * 2, kFirst, HugePageBlock::kUnit);
  if (bytes > next / 4) {
    return new_small_block(bytes);
  }
  if (next == HugePageBlock::kUnit) {
    block_ = page_blocks_.emplace_back(next).data();
    byte_count_ += next;
  } else {
    block_ = new_small_block(next);
  }
  size_ = next;
  used_ = bytes;
  return block_;
}

char* Arena::new_small_block(size_t bytes) {
  std::unique_ptr<char[]> block(new char[bytes]);
  small_blocks_.push_back(std::move(block));
  byte_count_ += bytes;
  return small_blocks_.back().get();
}

}  // namespace symforge_internal
