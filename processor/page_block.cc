#include "processor/page_block.h"

#include <sys/mman.h>

#include <cassert>
#include <cstdint>
#include <new>

namespace google_breakpad {

// Maps one unit more than needed and gives back what lies before and behind the aligned part.
PageBlock::PageBlock(size_t size) : size_(size) {
  assert(size > 0 && size % kUnit == 0);
  void* mapping =
      mmap(nullptr, size + kUnit, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) throw std::bad_alloc();
  char* begin = static_cast<char*>(mapping);
  const size_t before = (kUnit - reinterpret_cast<uintptr_t>(begin) % kUnit) % kUnit;
  data_ = begin + before;
  if (before > 0) munmap(begin, before);
  if (before < kUnit) munmap(data_ + size, kUnit - before);
  madvise(data_, size, MADV_HUGEPAGE);  // best effort
}

PageBlock::~PageBlock() {
  if (data_ != nullptr) munmap(data_, size_);
}

}  // namespace google_breakpad
