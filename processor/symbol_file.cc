#include "processor/symbol_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/file_io.h"
#include "base/huge_page_block.h"
#include "base/printable.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "processor/logging.h"

namespace google_breakpad {

using symforge_internal::FileDescriptor;
using symforge_internal::kSymbMagic;
using symforge_internal::prefer_huge_pages;
using symforge_internal::printable;
using symforge_internal::symb_has_magic;

namespace {

constexpr off_t kFileSizeLimit = off_t{1} << 31;
constexpr const char* kNotOpened = "Could not open ";
constexpr const char* kNotRead = "Could not slurp ";

// Null if a file has a kind and size that can be loaded, otherwise the beginning of a message.
const char* reject(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return kNotOpened;
  }
  if (status.st_size >= kFileSizeLimit) {
    errno = EFBIG;
    return kNotRead;
  }
  return nullptr;
}

bool read_exactly(int fd, char* to, size_t size) {
  while (size > 0) {
    const ssize_t got = read(fd, to, size);
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) errno = EIO;  // the file has become shorter
    if (got <= 0) return false;
    to += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

bool begins_with_magic(int fd) {
  char start[kSymbMagic.size()];
  const ssize_t got = pread(fd, start, sizeof start, 0);
  return got > 0 && symb_has_magic(start, static_cast<size_t>(got));
}

}  // namespace

const char* SymbolFile::Open(const std::string& path, Symb symb) {
  // Opening a FIFO or a device could block or have side effects, so its kind is checked first.
  struct stat status;
  if (stat(path.c_str(), &status) == -1) return kNotOpened;
  if (const char* failure = reject(status)) return failure;
  SYMFORGE_LOG(INFO) << "Opening " << printable(path);
  // The file may have been replaced since the check: do not block on what replaced it.
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.is_open() || fstat(file.get(), &status) == -1) return kNotOpened;
  if (const char* failure = reject(status)) return failure;
  size_ = static_cast<size_t>(status.st_size);
  if (symb == Symb::kMap && begins_with_magic(file.get())) {
    if (!mapping_.Map(file.get())) return kNotRead;
    data_ = const_cast<char*>(reinterpret_cast<const char*>(mapping_.base()));
    size_ = mapping_.length();
    if (!is_symb()) {
      errno = EIO;  // changed in the meantime: not text that may be parsed in place
      return kNotRead;
    }
  } else if (!Read(file.get())) {
    return kNotRead;
  }
  symb_touch(file.get());
  return nullptr;
}

bool SymbolFile::Read(int fd) {
  array_.reset(new char[size_ + 1]);  // not initialized
  data_ = array_.get();
  prefer_huge_pages(data_, size_ + 1);
  data_[size_] = '\0';
  return read_exactly(fd, data_, size_);
}

bool SymbolFile::is_symb() const { return symb_has_magic(data_, size_); }

}  // namespace google_breakpad
