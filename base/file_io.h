// Reading and writing whole files. On failure `errno` holds the reason.

#pragma once

#include <sys/types.h>

#include <span>
#include <string>
#include <string_view>

#include "base/text_buffer.h"

namespace symforge_internal {

// Owns a file descriptor and closes it on destruction.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  ~FileDescriptor() { close(); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  bool is_open() const { return fd_ != -1; }
  int get() const { return fd_; }

  // Closes the descriptor now. Returns false when close() reports a delayed write error; true when
  // nothing was open.
  bool close();

 private:
  int fd_;
};

// Opens a regular file for reading. -1 for a file that cannot be opened, and for everything else:
// opening a FIFO or a device would block or have side effects. `errno` is then EINVAL.
int open_regular(const char* path);

// Appends the file, from its current position, to `content`: to the end of the file, or at most
// `limit` bytes. The rest of a regular file is read with one call.
bool read_file(int fd, TextBuffer& content, size_t limit = SIZE_MAX);

// The first `limit` bytes of a file; empty if it cannot be opened or read. Does not wait for the
// other end of a FIFO.
std::string content_of(const std::string& path, size_t limit = 64 * 1024);

// Writes all of `content`.
bool write_file(int fd, std::string_view content);

struct ReplaceOptions {
  mode_t mode = 0600;  // of the new file, before the umask
  // Sync the content to disk before the rename: after a loss of power the path names either the old
  // file or the complete new one. Only sync_folder() guarantees the new one.
  bool sync = false;
};

// Replaces the file `target` by `content` atomically. The content is written to a temporary file in
// the same directory (the target's name and six more characters), which is then renamed. Returns
// null on success, otherwise the step that failed: "failed to mkstemp", "failed to write", "failed
// to rename". On failure the temporary file is removed and the target is unchanged.
// The second form writes several pieces, one after the other.
const char* replace_file(const std::string& target, std::string_view content,
                         const ReplaceOptions& options);
const char* replace_file(const std::string& target, std::span<const std::string_view> pieces,
                         const ReplaceOptions& options);

// Removes the temporary file that replace_file() is writing in this process, if there is one. Safe
// in a signal handler; the process must then end.
void remove_unfinished_file();

// Syncs the entries of a directory to disk.
bool sync_folder(const std::string& path);

// The target of a symbolic link; empty when `link` is not one.
std::string link_target(const std::string& link);

}  // namespace symforge_internal
