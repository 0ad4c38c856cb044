#include "base/huge_page_block.h"

#include <sys/mman.h>

#include <cassert>
#include <cstdint>
#include <new>

namespace symforge_internal {

namespace {

// Maps one unit more than needed and unmaps what precedes and follows the aligned part.
char* map_aligned(size_t size) {
  constexpr size_t kUnit = HugePageBlock::kUnit;
  void* mapping =
      mmap(nullptr, size + kUnit, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) throw std::bad_alloc();
  char* begin = static_cast<char*>(mapping);
  const size_t before = (kUnit - reinterpret_cast<uintptr_t>(begin) % kUnit) % kUnit;
  if (before > 0) munmap(begin, before);
  if (before < kUnit) munmap(begin + before + size, kUnit - before);
  return begin + before;
}

}  // namespace

HugePageBlock::HugePageBlock(size_t size) : data_(map_aligned(size)), size_(size) {
  assert(size > 0 && size % kUnit == 0);
  prefer_huge_pages(data_, size);
}

HugePageBlock::~HugePageBlock() {
  if (data_ != nullptr) munmap(data_, size_);
}

// When the block cannot grow in target, its pages move to another aligned address: huge pages can
// only be moved whole.
void HugePageBlock::enlarge(size_t size) {
  assert(data_ != nullptr && size > size_ && size % kUnit == 0);
  if (mremap(data_, size_, size, 0) == MAP_FAILED) {
    char* const target = map_aligned(size);
    if (mremap(data_, size_, size, MREMAP_MAYMOVE | MREMAP_FIXED, target) == MAP_FAILED) {
      munmap(target, size);
      throw std::bad_alloc();
    }
    data_ = target;
  }
  size_ = size;
}

void prefer_huge_pages(char* block, size_t size) {
  constexpr uintptr_t kUnit = HugePageBlock::kUnit;
  const auto address = reinterpret_cast<uintptr_t>(block);
  const uintptr_t begin = (address + kUnit - 1) / kUnit * kUnit;
  const uintptr_t end = (address + size) / kUnit * kUnit;
  // Best effort: on failure the memory is only slower.
  if (begin < end) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

}  // namespace symforge_internal
