#include "base/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace symforge_internal {

namespace {

// Reserves zeroed bytes for file and guard, then maps the file over the start. The rest of the
// file's last page and the guard stay zero.
void* map_with_guard(int fd, size_t length) {
  const size_t reserved = length + MMapWrapper::kGuardBytes;
  void* base =
      mmap(nullptr, reserved, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  if (mmap(base, length, PROT_READ, MAP_PRIVATE | MAP_FIXED, fd, 0) == MAP_FAILED) {
    munmap(base, reserved);
    return nullptr;
  }
  return base;
}

}  // namespace

bool MMapWrapper::Map(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool mapped = Map(fd);
  close(fd);
  return mapped;
}

bool MMapWrapper::Map(int fd) {
  struct stat status;
  // mmap() rejects an empty mapping, and a directory.
  if (fstat(fd, &status) != 0 || status.st_size <= 0) return false;
  length_ = static_cast<size_t>(status.st_size);
  base_ = static_cast<const uint8_t*>(map_with_guard(fd, length_));
  return base_ != nullptr;
}

void MMapWrapper::Unmap() {
  if (base_ == nullptr) return;
  munmap(const_cast<uint8_t*>(base_), length_ + kGuardBytes);
  base_ = nullptr;
}

// Parts begin at page tables (2 MiB), so that no two threads take turns at one.
void MMapWrapper::ReleasePart(size_t part, size_t parts) const {
  if (base_ == nullptr) return;
  constexpr size_t kUnit = size_t{2} << 20;
  const auto start_of = [&](size_t i) {
    return i == parts ? length_ : length_ / parts * i / kUnit * kUnit;
  };
  const size_t start = start_of(part);
  madvise(const_cast<uint8_t*>(base_) + start, start_of(part + 1) - start, MADV_DONTNEED);
}

}  // namespace symforge_internal
