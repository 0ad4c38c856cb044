#include "tests/support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "builders/bytes.h"
#include "tests/support/memory_file.h"

namespace test_support {

using namespace builders;
namespace {

namespace fs = std::filesystem;

constexpr int kCannotStart = 127;
constexpr uid_t kNobody = 65534;

void set_limit(int resource, std::optional<size_t> value) {
  if (!value) return;
  const rlimit limit = {*value, *value};
  setrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
}

[[noreturn]] void become(const std::vector<std::string>& args, const RunOptions& options, int out,
                         int err) {
  std::vector<char*> argv = {const_cast<char*>(options.name.c_str())};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const int program = open(SYMFORGE_PROGRAM, O_RDONLY | O_CLOEXEC);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  umask(022);
  set_limit(RLIMIT_FSIZE, options.file_size);
  set_limit(RLIMIT_NOFILE, options.descriptors);
  if (!options.directory.empty() && chdir(options.directory.c_str()) != 0) _exit(kCannotStart);
  if (options.as_nobody && geteuid() == 0 && setuid(kNobody) != 0) _exit(kCannotStart);
  if (!options.preload.empty()) setenv("LD_PRELOAD", options.preload.c_str(), 1);
  // By descriptor: the program may be in a directory that only root can enter.
  fexecve(program, argv.data(), environ);
  _exit(kCannotStart);
}

Result wait_for(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) throw std::runtime_error("waitpid");
  Result result;
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  if (result.status == kCannotStart) throw std::runtime_error("program cannot be started");
  return result;
}

std::string describe(const fs::directory_entry& entry) {
  if (entry.is_symlink()) return "link " + fs::read_symlink(entry.path()).string();
  char mode[8];
  snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(entry.status().permissions()) & 07777);
  if (entry.is_directory()) return std::string("dir ") + mode;
  return std::string("file ") + mode + " " + read_file(entry.path());
}

}  // namespace

Result run(const std::vector<std::string>& args, const RunOptions& options) {
  const MemoryFile out, err;
  int stdout_fd = options.stdout_fd != -1 ? options.stdout_fd : out.fd();
  if (!options.stdout_path.empty()) {
    stdout_fd = open(options.stdout_path.c_str(), O_WRONLY | O_CLOEXEC);
  }
  const pid_t pid = fork();
  if (pid == 0) become(args, options, stdout_fd, err.fd());
  if (!options.stdout_path.empty()) close(stdout_fd);
  Result result = wait_for(pid);
  result.out = read_file(out.path());
  result.err = read_file(err.path());
  return result;
}

Result run_alone(const std::function<void()>& call) {
  const MemoryFile err;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(err.fd(), STDERR_FILENO);
    call();
    _exit(0);
  }
  Result result = wait_for(pid);
  result.err = read_file(err.path());
  return result;
}

pid_t start(const std::vector<std::string>& args) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  setpgid(0, 0);
  const int null = open("/dev/null", O_WRONLY);
  become(args, {}, null, null);
}

TemporaryDirectory::TemporaryDirectory() : path_("/tmp/symforge_test_XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp");
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TemporaryDirectory::folder(std::string_view name) const {
  fs::create_directories(*this / name);
  return *this / name;
}

std::string TemporaryDirectory::file(std::string_view name, std::string_view bytes) const {
  const std::string path = *this / name;
  fs::create_directories(fs::path(path).parent_path());
  write_file(path, bytes);
  return path;
}

Tree list_tree(const std::string& root) {
  Tree tree;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    tree[entry.path().lexically_relative(root)] = describe(entry);
  }
  return tree;
}

}  // namespace test_support
