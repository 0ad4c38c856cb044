// Running symforge as its users do: arguments in, standard output, standard error and exit status
// out; and looking at what it left on disk.

#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

struct Result {
  std::string out;
  std::string err;
  int status = -1;  // exit status; -1 when a signal ended the process
  int signal = 0;   // 0 when the process ended by itself
};

struct RunOptions {
  std::string directory = {};              // working directory; empty: the caller's
  std::string name = SYMFORGE_PROGRAM;     // argv[0]
  std::string stdout_path = {};            // where standard output goes in place of Result::out
  int stdout_fd = -1;                      // the same as an open descriptor; -1: none
  std::optional<size_t> descriptors = {};  // limit of their number
  std::optional<size_t> file_size = {};    // limit of the size of any file written, in bytes
  std::string preload = {};                // a library to load ahead of all others
  bool as_nobody = false;                  // without root's rights, when the tests have these
};

// Runs the program and waits for it. Throws std::runtime_error when it cannot be started.
Result run(const std::vector<std::string>& args, const RunOptions& options = {});

// Starts the program in a process group of its own, with its output discarded, and does not wait.
pid_t start(const std::vector<std::string>& args);

// A folder of its own below /tmp that goes with its contents.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Makes a folder (and those above it) inside and returns its path.
  std::string folder(std::string_view name) const;
  // Writes a file, with the folders above it, and returns its path.
  std::string file(std::string_view name, std::string_view bytes) const;

 private:
  std::string path_;
};

// What lies below a folder: relative path to "dir 0700", "file 0600 CONTENT" or "link TARGET".
using Tree = std::map<std::string, std::string>;
Tree list_tree(const std::string& root);

}  // namespace test_support
