#include "symforge/src/driver/batch.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/printable.h"
#include "symforge/src/driver/child_process.h"
#include "symforge/src/driver/convert.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/driver/pdb_matcher.h"
#include "symforge/src/pe/image_identity.h"

const char* command = nullptr;

namespace symforge_internal {

namespace {

constexpr char kThisProgram[] = "/proc/self/exe";

void redirect_output() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null == -1) {
    report("unable to redirect stdout/stderr");
    return;
  }
  for (const int fd : {STDOUT_FILENO, STDIN_FILENO}) {
    if (dup2(null, fd) == -1) report("dup2 failed");
  }
}

// The arguments of a child's command line, which ends in a null pointer.
std::vector<const char*> arguments_of(const ConversionInput& input,
                                      const ConversionOptions& options) {
  std::vector<const char*> args = {command, "-s", options.tree};
  if (options.binary) args.push_back("-b");
  if (input.exe != nullptr) args.insert(args.end(), {"-e", input.exe});
  if (!do_inline) args.push_back("-i");
  if (options.standard) args.push_back("--standard");
  if (options.sync != options.standard) args.push_back(options.sync ? "--sync" : "--no-sync");
  if (!options.sandbox) args.push_back("--no-sandbox");
  if (input.pdb != nullptr) args.push_back(input.pdb);
  args.push_back(nullptr);
  return args;
}

// The child: becomes a conversion of one input, with an empty environment. It runs the very file
// that this process runs, whatever now has its name or is found under it.
[[noreturn]] void execute(const ConversionInput& input, const ConversionOptions& options) {
  redirect_output();
  if (input.name() == nullptr) {
    report("No pdb or exe");
    std::exit(1);
  }
  const std::vector<const char*> args = arguments_of(input, options);
  execve(kThisProgram, const_cast<char**>(args.data()), nullptr);
  report("Failed execve: %s", strerror(errno));
  std::exit(1);
}

void report_signal(const char* path, int signal) {
  if (standard_messages()) {
    report("%s: ended by signal: %s", printable(path).c_str(), strsignal(signal));
    return;
  }
  char message[128];  // a longer one is cut
  snprintf(message, sizeof message, "%s [%s] was terminated by signal: %s",
           printable(command).c_str(), printable(path).c_str(), strsignal(signal));
  report("%s", message);
}

}  // namespace

bool convert_in_child(const ConversionInput& input, const ConversionOptions& options) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == -1) {
    report("Failed fork: %s", strerror(errno));
    return false;
  }
  if (pid == 0) {
    end_with_parent(parent);
    execute(input, options);
  }

  int status = 0;
  if (waitpid(pid, &status, 0) == -1) {
    report("Failed waitpid on fork: %s", strerror(errno));
    return false;
  }
  if (WIFSIGNALED(status)) {
    report_signal(input.name(), WTERMSIG(status));
    return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

namespace {

// One run over what a walk found.
class Batch {
 public:
  Batch(const ConversionOptions& options, BatchInput& found)
      : options_(options), found_(found), matcher_(found.pdbs, options) {}

  void run() {
    for (const std::string& sym : found_.syms) convert(sym.c_str(), nullptr);
    for (const std::string& exe : found_.pes) convert_image(exe, /*alone=*/true);
    for (const std::string& other : found_.others) {
      if (begins_like_image(other.c_str())) convert_image(other, /*alone=*/false);
    }
    for (const std::string& pdb : found_.pdbs) convert(pdb.c_str(), nullptr);
  }

  size_t successes() const { return successes_; }
  size_t failures() const { return failures_; }

 private:
  void convert(const char* pdb, const char* exe) {
    const bool converted = convert_in_child({.pdb = pdb, .exe = exe}, options_);
    ++(converted ? successes_ : failures_);
  }

  // With its PDB; without one alone, if that is wanted.
  void convert_image(const std::string& exe, bool alone) {
    std::string pdb;
    switch (matcher_.exe_pdb_match(exe, pdb)) {
      case PdbMatcher::Match::kFound:
        convert(pdb.c_str(), exe.c_str());
        found_.pdbs.erase(pdb);
        return;
      case PdbMatcher::Match::kTaken:
        // A copy of an image adds nothing; default mode has it refused by the conversion.
        if (options_.standard) return;
        break;
      case PdbMatcher::Match::kNone:
        break;
    }
    if (alone) convert(nullptr, exe.c_str());
  }

  const ConversionOptions& options_;
  BatchInput& found_;
  PdbMatcher matcher_;
  size_t successes_ = 0;
  size_t failures_ = 0;
};

int standard_status(size_t successes, size_t failures) {
  constexpr int kNothingDone = 1;
  constexpr int kSomeFailed = 2;
  if (successes == 0) return kNothingDone;
  return failures == 0 ? 0 : kSomeFailed;
}

}  // namespace

int convert_batch(const char* path, const ConversionOptions& options) {
  BatchInput found;
  BatchWalk walk(options.standard, found);
  if (!walk.run(path)) return 1;
  Batch batch(options, found);
  batch.run();
  if (!options.standard) return batch.successes() > 0 ? 0 : 1;
  const size_t failures = walk.failures() + batch.failures();
  if (batch.successes() == 0 && failures == 0) report("%s: no input", printable(path).c_str());
  return standard_status(batch.successes(), failures);
}

}  // namespace symforge_internal

bool pdb_execve(const char* pdb_path, const char* exe_path, const char* sym_path,
                bool binary_output) {
  return symforge_internal::convert_in_child({.pdb = pdb_path, .exe = exe_path},
                                             {.binary = binary_output, .tree = sym_path});
}
