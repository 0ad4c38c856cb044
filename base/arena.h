// Arena: memory for records and strings that live exactly as long as their module.
//
// Memory is handed out from blocks of up to 2 MiB, in ascending order. It is freed all at once when
// the arena is destroyed; no destructor of a stored record runs. Records allocated one after the
// other are adjacent, so a function, its name, its lines and its inline sites share cache lines and
// pages.
//
// One thread at a time.

#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/huge_page_block.h"

namespace symforge_internal {

class Arena {
 public:
  // Returns `bytes` bytes of uninitialized memory, owned by the arena. `alignment` is a power of
  // two up to 16. Throws std::bad_alloc.
  void* allocate(size_t bytes, size_t alignment) {
    const size_t skip = (alignment - used_ % alignment) % alignment;
    if (size_ - used_ < skip || size_ - used_ - skip < bytes) return allocate_in_new_block(bytes);
    void* memory = block_ + used_ + skip;
    used_ += skip + bytes;
    return memory;
  }

  // Copies `count` records into the arena.
  template <typename Record>
  Record* copy(const Record* records, size_t count) {
    static_assert(std::is_trivially_copyable_v<Record> && alignof(Record) <= 16);
    void* memory = allocate(count * sizeof(Record), alignof(Record));
    if (count > 0) std::memcpy(memory, records, count * sizeof(Record));
    return static_cast<Record*>(memory);
  }

  // Copies `text` into the arena and appends a NUL.
  const char* copy(std::string_view text) {
    char* memory = static_cast<char*>(allocate(text.size() + 1, 1));
    if (!text.empty()) std::memcpy(memory, text.data(), text.size());
    memory[text.size()] = '\0';
    return memory;
  }

  // The memory of all blocks.
  size_t byte_count() const { return byte_count_; }

 private:
  void* allocate_in_new_block(size_t bytes);
  char* new_small_block(size_t bytes);

  std::vector<std::unique_ptr<char[]>> small_blocks_;
  std::vector<HugePageBlock> page_blocks_;
  char* block_ = nullptr;  // the block being filled
  size_t size_ = 0;        // of that block, in bytes
  size_t used_ = 0;
  size_t byte_count_ = 0;
};

}  // namespace symforge_internal
