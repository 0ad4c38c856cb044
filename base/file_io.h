// Whole files in and out with few system calls. On failure `errno` says why.

#pragma once

#include <string_view>

#include "base/text_buffer.h"

namespace symforge_internal {

// An open file that is closed at the end of its scope.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() { close(); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  bool is_open() const { return fd_ != -1; }
  int get() const { return fd_; }

  // Closes the file before the end of the scope. False when the system reports a delayed failure
  // to write; true when nothing was open.
  bool close();

 private:
  int fd_;
};

// Appends the file from its position on to `content`: up to its end, or up to `limit` bytes when
// that is less. The rest of a regular file is taken in one read.
bool read_file(int fd, TextBuffer& content, size_t limit = SIZE_MAX);

// Writes all of `content`, in one write where the system takes it.
bool write_file(int fd, std::string_view content);

}  // namespace symforge_internal
