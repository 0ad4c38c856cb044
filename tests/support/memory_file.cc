#include "tests/support/memory_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

namespace test_support {

MemoryFile::MemoryFile(std::string_view bytes)
    : fd_(memfd_create("memory", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {
  if (fd_ == -1 || write(fd_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("no file in memory");
}

MemoryFile::~MemoryFile() { close(fd_); }

}  // namespace test_support
