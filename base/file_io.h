// Whole files in and out with few system calls. On failure `errno` says why.

#pragma once

#include <sys/types.h>

#include <string>
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

struct ReplaceOptions {
  mode_t mode = 0600;  // of the new file, less the umask
  // The content reaches the disk before it gets its name: after a loss of power the old file is
  // there or the whole new one. Which of them is certain after sync_folder().
  bool sync = false;
};

// Puts `content` in the place of the file `target` in one step: it is written to a new file beside
// the target (its name and six more characters), which is renamed only when it is complete.
// Null, or which step failed: "failed to mkstemp", "failed to write", "failed to rename". The new
// file is then removed, and the target is as it was.
const char* replace_file(const std::string& target, std::string_view content,
                         const ReplaceOptions& options);

// Writes the entries of a folder to the disk.
bool sync_folder(const std::string& path);

// What a symbolic link holds. Empty when there is no such link.
std::string link_target(const std::string& link);

}  // namespace symforge_internal
