#include "builders/guarded_block.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace builders {

GuardedBlock::GuardedBlock(std::string_view bytes) : size_(bytes.size()) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t used = (bytes.size() + page - 1) / page * page;
  mapping_size_ = used + page;
  void* mapping =
      mmap(nullptr, mapping_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) throw std::runtime_error("mmap");
  mapping_ = static_cast<char*>(mapping);
  mprotect(mapping_ + used, page, PROT_NONE);
  data_ = mapping_ + used - size_;
  if (size_ != 0) std::memcpy(data_, bytes.data(), size_);
}

GuardedBlock::~GuardedBlock() { munmap(mapping_, mapping_size_); }

void GuardedBlock::make_read_only() { mprotect(mapping_, mapping_size_, PROT_READ); }

}  // namespace builders
