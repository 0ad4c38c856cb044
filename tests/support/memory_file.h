// A file in memory, for input or output that disappears with the process however it ends.

#pragma once

#include <string>
#include <string_view>

namespace test_support {

class MemoryFile {
 public:
  // Throws std::runtime_error if the file cannot be created.
  explicit MemoryFile(std::string_view bytes = {});
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int fd() const { return fd_; }
  // A path through which this process can open it.
  const char* path() const { return path_.c_str(); }

 private:
  int fd_;
  std::string path_;
};

}  // namespace test_support
