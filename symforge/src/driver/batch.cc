#include "symforge/src/driver/batch.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "symforge/src/driver/convert.h"
#include "symforge/src/driver/pdb_matcher.h"

const char* command = nullptr;

using symforge_internal::PdbMatcher;

namespace {

constexpr int kPriority = LOG_USER | LOG_ERR;
constexpr size_t kLongestPath = 4095;  // bytes

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};

void collect(const std::string& path, BatchInput& found) {
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos) return;
  const char* extension = path.c_str() + dot;
  if (strcasecmp(extension, ".pdb") == 0) {
    found.pdbs.insert(path);
  } else if (strcasecmp(extension, ".dll") == 0 || strcasecmp(extension, ".exe") == 0) {
    found.pes.insert(path);
  } else if (strcasecmp(extension, ".sym") == 0) {
    found.syms.insert(path);
  }
}

bool stat_failed(const std::string& path) {
  syslog(kPriority, "Failed to stat %s\n", path.c_str());
  return false;
}

// The walk below `path`, which is the one buffer of the whole walk: it is extended on the way down
// and cut back on the way up, so that a deep tree costs little stack.
bool walk(std::string& path, BatchInput& found);

bool walk_directory(std::string& path, BatchInput& found) {
  const std::unique_ptr<DIR, DirectoryCloser> directory(opendir(path.c_str()));
  if (!directory) {
    syslog(kPriority, "Failed to opendir %s\n", path.c_str());
    return false;
  }
  const size_t length = path.size();
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] == '.') continue;
    path.append("/").append(entry->d_name);
    if (path.size() > kLongestPath) {
      path.resize(kLongestPath);
      return stat_failed(path);
    }
    if (!walk(path, found)) return false;
    path.resize(length);
  }
  return true;
}

bool walk(std::string& path, BatchInput& found) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return stat_failed(path);
  if (S_ISREG(status.st_mode)) collect(path, found);
  return !S_ISDIR(status.st_mode) || walk_directory(path, found);
}

void redirect_output() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null == -1) {
    syslog(kPriority, "unable to redirect stdout/stderr\n");
    return;
  }
  for (const int fd : {STDOUT_FILENO, STDIN_FILENO}) {
    if (dup2(null, fd) == -1) syslog(kPriority, "dup2 failed\n");
  }
}

// The child: becomes a conversion of one input, with an empty environment.
[[noreturn]] void execute(const char* pdb_path, const char* exe_path, const char* sym_path,
                          bool binary_output) {
  redirect_output();
  std::vector<const char*> args = {command, "-s", sym_path};
  if (binary_output) args.push_back("-b");
  if (exe_path != nullptr) args.insert(args.end(), {"-e", exe_path});
  if (!do_inline) args.push_back("-i");
  if (pdb_path != nullptr) args.push_back(pdb_path);
  args.push_back(nullptr);
  if (pdb_path == nullptr && exe_path == nullptr) {
    syslog(kPriority, "No pdb or exe\n");
    std::exit(1);
  }
  execve(command, const_cast<char**>(args.data()), nullptr);
  syslog(kPriority, "Failed execve: %s\n", strerror(errno));
  std::exit(1);
}

void log_signal(const char* path, int signal) {
  char message[128];  // a longer one is cut
  snprintf(message, sizeof message, "%s [%s] was terminated by signal: %s\n", command, path,
           strsignal(signal));
  syslog(kPriority, "%s", message);
}

}  // namespace

bool pdb_file_walk(const char* path, BatchInput& found) {
  std::string buffer(path);
  return walk(buffer, found);
}

bool pdb_execve(const char* pdb_path, const char* exe_path, const char* sym_path,
                bool binary_output) {
  const pid_t pid = fork();
  if (pid == -1) {
    syslog(kPriority, "Failed fork: %s\n", strerror(errno));
    return false;
  }
  if (pid == 0) execute(pdb_path, exe_path, sym_path, binary_output);

  int status = 0;
  if (waitpid(pid, &status, 0) == -1) {
    syslog(kPriority, "Failed waitpid on fork: %s\n", strerror(errno));
    return false;
  }
  if (WIFSIGNALED(status)) {
    log_signal(pdb_path != nullptr ? pdb_path : exe_path, WTERMSIG(status));
    return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool convert_batch(const char* path, const char* sym_path, bool binary_output) {
  BatchInput found;
  if (!pdb_file_walk(path, found)) return false;

  size_t success = 0;
  for (const std::string& sym : found.syms) {
    success += pdb_execve(sym.c_str(), nullptr, sym_path, binary_output);
  }
  PdbMatcher ids(found.pdbs);
  for (const std::string& exe : found.pes) {
    std::string pdb;
    const bool paired = ids.exe_pdb_match(exe, pdb);
    success += pdb_execve(paired ? pdb.c_str() : nullptr, exe.c_str(), sym_path, binary_output);
    if (paired) found.pdbs.erase(pdb);
  }
  for (const std::string& pdb : found.pdbs) {
    success += pdb_execve(pdb.c_str(), nullptr, sym_path, binary_output);
  }
  return success > 0;
}
