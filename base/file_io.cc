#include "base/file_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace symforge_internal {

namespace {

constexpr size_t kBlock = 64 * 1024;

// How much to ask for: what is left of a regular file and one byte, so that the read that meets
// the end needs no growth; a block of anything else.
size_t bytes_expected(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return kBlock;
  const off_t position = lseek(fd, 0, SEEK_CUR);
  if (position < 0 || position >= status.st_size) return kBlock;
  return static_cast<size_t>(status.st_size - position) + 1;
}

}  // namespace

bool FileDescriptor::close() {
  if (fd_ == -1) return true;
  const bool closed = ::close(fd_) == 0;
  fd_ = -1;
  return closed;
}

bool read_file(int fd, TextBuffer& content, size_t limit) {
  size_t room = bytes_expected(fd);
  while (limit > 0) {
    const size_t wanted = std::min(room, limit);
    const ssize_t got = read(fd, content.prepare(wanted), wanted);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return got == 0;
    content.commit(static_cast<size_t>(got));
    limit -= static_cast<size_t>(got);
    // What was asked for and did not come still has its room; a file that grew gets a block.
    room = static_cast<size_t>(got) < room ? room - static_cast<size_t>(got) : kBlock;
  }
  return true;
}

bool write_file(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(fd, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    content.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace symforge_internal
