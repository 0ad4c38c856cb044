// Runs symforge as a process with arguments, and returns its standard output, standard error and
// exit status. Also lists the files it wrote.

#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// With the address sanitizer a process takes ten times as long: tests that start hundreds of them
// repeat less, because builds without it run all of them.
#ifdef SYMFORGE_SLOW_PROGRAM
constexpr bool kSlowProgram = true;
#else
constexpr bool kSlowProgram = false;
#endif

struct Result {
  std::string out;
  std::string err;
  int status = -1;  // exit status; -1 if a signal ended the process
  int signal = 0;   // 0 if the process exited by itself
};

struct RunOptions {
  std::string directory = {};              // working directory; empty: unchanged
  std::string name = SYMFORGE_PROGRAM;     // argv[0]
  std::string stdout_path = {};            // file for standard output, instead of Result::out
  int stdout_fd = -1;                      // as above as an open descriptor; -1: none
  std::optional<size_t> descriptors = {};  // limit on the number of open descriptors
  std::optional<size_t> file_size = {};    // limit on the size of any written file, in bytes
  std::string preload = {};                // a library for LD_PRELOAD
  bool as_nobody = false;                  // drops root's rights if the tests have them
};

// Runs the program and waits for it. Throws std::runtime_error if it cannot be started.
Result run(const std::vector<std::string>& args, const RunOptions& options = {});

// Calls a function in a process of its own, which may end there. Returns its standard error and how
// it ended; status 0 if the function returned.
Result run_alone(const std::function<void()>& call);

// Starts the program in its own process group with its output discarded, and does not wait.
pid_t start(const std::vector<std::string>& args);

// A directory below /tmp that is deleted with its contents on destruction.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Creates a directory and its parents inside, and returns its path.
  std::string folder(std::string_view name) const;
  // Writes a file, creates its parent directories, and returns its path.
  std::string file(std::string_view name, std::string_view bytes) const;

 private:
  std::string path_;
};

// The contents of a directory: relative path to "dir 0700", "file 0600 CONTENT" or "link TARGET".
using Tree = std::map<std::string, std::string>;
Tree list_tree(const std::string& root);

}  // namespace test_support
