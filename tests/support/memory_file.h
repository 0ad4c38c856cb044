// A file that lies in memory: input or output that is gone with the process, however that ends.

#pragma once

#include <string>
#include <string_view>

namespace test_support {

class MemoryFile {
 public:
  // Throws std::runtime_error when the file cannot be made.
  explicit MemoryFile(std::string_view bytes = {});
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int fd() const { return fd_; }
  // A path by which this process can open it.
  const char* path() const { return path_.c_str(); }

 private:
  int fd_;
  std::string path_;
};

}  // namespace test_support
