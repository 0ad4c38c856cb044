#include "processor/arena.h"

#include <algorithm>

namespace google_breakpad {

// Blocks double from 4 KiB on, so that a small module stays small. What does not fit the next one
// gets a block of its own, and the one being filled stays in use.
void* Arena::allocate_in_new_block(size_t bytes) {
  constexpr size_t kFirst = 4 * 1024, kLargest = 1024 * 1024;
  const size_t next = std::clamp(size_ * 2, kFirst, kLargest);
  if (bytes > next / 4) {
    blocks_.emplace_back(new char[bytes]);
    return blocks_.back().get();
  }
  blocks_.emplace_back(new char[next]);
  block_ = blocks_.back().get();
  size_ = next;
  used_ = bytes;
  return block_;
}

}  // namespace google_breakpad
