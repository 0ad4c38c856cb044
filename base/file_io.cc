#include "base/file_io.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace symforge_internal {

namespace {

constexpr size_t kBlock = 64 * 1024;

constexpr char kNameCharacters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

// The path of the temporary file that is being written, for signal handlers.
char unfinished_path[PATH_MAX];
std::atomic<bool> is_unfinished = false;

// Called before the file is created. A path that is too long cannot be created either.
void set_unfinished(const std::string& path) {
  is_unfinished = false;
  if (path.size() >= sizeof unfinished_path) return;
  std::copy_n(path.c_str(), path.size() + 1, unfinished_path);
  is_unfinished = true;
}

// Fills `to` with random characters, so that concurrent processes choose different names.
void fill_random(char* to, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    unsigned char byte;
    if (getrandom(&byte, 1, GRND_NONBLOCK) != 1) {
      timespec now = {};
      clock_gettime(CLOCK_MONOTONIC, &now);
      byte =
          static_cast<unsigned char>(static_cast<long>(getpid()) * 31 + now.tv_nsec + now.tv_sec);
    }
    to[i] = kNameCharacters[byte % (sizeof kNameCharacters - 1)];
  }
}

// Creates a new file whose name is `name` plus six random characters, which are appended to `name`.
int create_beside(std::string& name, mode_t mode) {
  constexpr size_t kSuffix = 6;
  constexpr int kAttempts = 1000;  // one suffices unless old files are left over
  const size_t length = name.size();
  name.resize(length + kSuffix);
  for (int i = 0; i < kAttempts; ++i) {
    fill_random(name.data() + length, kSuffix);
    set_unfinished(name);
    const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd != -1 || errno != EEXIST) return fd;
  }
  return -1;
}

// How many bytes to request from read(): for a regular file what is left plus one, so that the read
// that meets the end does not grow the buffer; otherwise a fixed block.
size_t bytes_expected(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return kBlock;
  const off_t position = lseek(fd, 0, SEEK_CUR);
  if (position < 0 || position >= status.st_size) return kBlock;
  return static_cast<size_t>(status.st_size - position) + 1;
}

}  // namespace

int open_regular(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status;
  if (fd == -1) return -1;
  const bool known = fstat(fd, &status) == 0;
  if (known && S_ISREG(status.st_mode)) return fd;
  const int error = known ? EINVAL : errno;
  close(fd);
  errno = error;
  return -1;
}

bool FileDescriptor::close() {
  if (fd_ == -1) return true;
  const bool closed = ::close(fd_) == 0;
  fd_ = -1;
  return closed;
}

bool read_file(int fd, TextBuffer& content, size_t limit) {
  size_t spare = bytes_expected(fd);
  while (limit > 0) {
    const size_t wanted = std::min(spare, limit);
    const ssize_t got = read(fd, content.prepare(wanted), wanted);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return got == 0;
    content.commit(static_cast<size_t>(got));
    limit -= static_cast<size_t>(got);
    // Reserved bytes that were not filled are still available; a file that grew gets another block.
    spare = static_cast<size_t>(got) < spare ? spare - static_cast<size_t>(got) : kBlock;
  }
  return true;
}

std::string content_of(const std::string& path, size_t limit) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  TextBuffer content;
  if (!file.is_open() || !read_file(file.get(), content, limit)) return {};
  return std::string(content.view());
}

// In pieces: for a large one ext4 takes large blocks of memory that nothing has used for a while.
// On virtual machines the host has to provide them first, which takes several times as long as
// writing.
bool write_file(int fd, std::string_view content) {
  constexpr size_t kPiece = 256 * 1024;
  while (!content.empty()) {
    const ssize_t written = write(fd, content.data(), std::min(content.size(), kPiece));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    content.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

const char* replace_file(const std::string& target, std::string_view content,
                         const ReplaceOptions& options) {
  return replace_file(target, std::span(&content, 1), options);
}

const char* replace_file(const std::string& target, std::span<const std::string_view> pieces,
                         const ReplaceOptions& options) {
  std::string name = target;
  FileDescriptor file(create_beside(name, options.mode));
  if (!file.is_open()) {
    is_unfinished = false;
    return "failed to mkstemp";
  }
  const auto give_up = [&name](const char* step) {
    const int error = errno;
    unlink(name.c_str());
    is_unfinished = false;
    errno = error;
    return step;
  };
  for (const std::string_view piece : pieces) {
    if (!write_file(file.get(), piece)) return give_up("failed to write");
  }
  if (options.sync && fdatasync(file.get()) != 0) return give_up("failed to write");
  if (!file.close()) return give_up("failed to write");
  if (rename(name.c_str(), target.c_str()) != 0) return give_up("failed to rename");
  is_unfinished = false;
  return nullptr;
}

void remove_unfinished_file() {
  if (is_unfinished) unlink(unfinished_path);
}

bool sync_folder(const std::string& path) {
  const FileDescriptor folder(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return folder.is_open() && fsync(folder.get()) == 0;
}

std::string link_target(const std::string& link) {
  char target[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return length <= 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

}  // namespace symforge_internal
