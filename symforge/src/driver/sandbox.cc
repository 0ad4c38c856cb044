#include "symforge/src/driver/sandbox.h"

#ifndef SYMFORGE_SANDBOX

namespace symforge_internal {
void enter_sandbox(const SandboxRights&) {}
}  // namespace symforge_internal

#else

#include <fcntl.h>
#include <linux/landlock.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <initializer_list>

#include "base/file_io.h"

namespace symforge_internal {

namespace {

// ---- Landlock -----------------------------------------------------------------------------------
//
// Each version of the interface adds rights; a right that is not handled is not restricted. The
// interface is declared here in full, as the system's header can be older than the kernel.

constexpr uint64_t kReadFile = LANDLOCK_ACCESS_FS_READ_FILE;
constexpr uint64_t kWriteFile = LANDLOCK_ACCESS_FS_WRITE_FILE;
// kTruncate and REMOVE_DIR are harmless in a folder whose files can be replaced anyway. With the
// latter, renaming a file over a folder fails with the usual error.
constexpr uint64_t kTruncate = uint64_t{1} << 14;
constexpr uint64_t kInTree = kReadFile | kWriteFile | LANDLOCK_ACCESS_FS_READ_DIR |
                             LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                             LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
                             LANDLOCK_ACCESS_FS_MAKE_SYM | kTruncate;

struct RulesetAttributes {
  uint64_t file_system;  // version 1: 13 rights, 2: 14, 3: 15, 5: 16
  uint64_t network;      // version 4: to bind and to connect TCP sockets
  uint64_t scope;        // version 6: abstract sockets and signals outside the sandbox
};

// The attributes of a version, and their size.
RulesetAttributes attributes_of(int version, size_t& size) {
  constexpr int kRights[] = {0, 13, 14, 15, 15, 16};
  const int rights = kRights[version < 5 ? version : 5];
  RulesetAttributes attributes = {};
  attributes.file_system = (uint64_t{1} << rights) - 1;
  size = sizeof(uint64_t);
  if (version >= 4) {
    attributes.network = 3;
    size = 2 * sizeof(uint64_t);
  }
  if (version >= 6) {
    attributes.scope = 3;
    size = sizeof attributes;
  }
  return attributes;
}

void allow(int ruleset, const std::string& path, uint64_t rights) {
  const FileDescriptor file(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status;
  if (!file.is_open() || fstat(file.get(), &status) != 0) return;
  if (!S_ISDIR(status.st_mode)) rights &= kReadFile | kWriteFile | kTruncate;
  landlock_path_beneath_attr rule = {};
  rule.allowed_access = rights;
  rule.parent_fd = file.get();
  syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
}

void restrict_file_system(const SandboxRights& rights) {
  const long version =
      syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (version < 1) return;
  size_t size = 0;
  const RulesetAttributes attributes = attributes_of(static_cast<int>(version), size);
  const FileDescriptor ruleset(
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, size, 0)));
  if (!ruleset.is_open()) return;
  for (const std::string& file : rights.readable) {
    allow(ruleset.get(), file, kReadFile & attributes.file_system);
  }
  for (const std::string& folder : rights.writable) {
    allow(ruleset.get(), folder, kInTree & attributes.file_system);
  }
  syscall(SYS_landlock_restrict_self, ruleset.get(), 0);
}

// ---- seccomp ------------------------------------------------------------------------------------

// Allows a call with any arguments.
constexpr int kAllowed[] = {
    SCMP_SYS(access),
    SCMP_SYS(brk),
    SCMP_SYS(clock_gettime),
    SCMP_SYS(close),
    SCMP_SYS(exit),
    SCMP_SYS(exit_group),
    SCMP_SYS(faccessat),
    SCMP_SYS(faccessat2),
    SCMP_SYS(fcntl),
    SCMP_SYS(fstat),
    SCMP_SYS(futex),
    SCMP_SYS(getcwd),
    SCMP_SYS(getpid),
    SCMP_SYS(getrandom),
    SCMP_SYS(getrusage),
    SCMP_SYS(gettid),
    SCMP_SYS(gettimeofday),
    SCMP_SYS(lseek),
    SCMP_SYS(lstat),
    SCMP_SYS(madvise),
    SCMP_SYS(mremap),
    SCMP_SYS(munmap),
    SCMP_SYS(newfstatat),
    SCMP_SYS(pread64),
    SCMP_SYS(read),
    SCMP_SYS(readlink),
    SCMP_SYS(readlinkat),
    SCMP_SYS(readv),
    SCMP_SYS(restart_syscall),
    SCMP_SYS(rt_sigaction),
    SCMP_SYS(rt_sigprocmask),
    SCMP_SYS(rt_sigreturn),
    SCMP_SYS(sigaltstack),
    SCMP_SYS(stat),
    SCMP_SYS(statx),
    SCMP_SYS(time),
    SCMP_SYS(write),
    SCMP_SYS(writev),
};

// Only for conversions that write into a tree.
constexpr int kAllowedForWriting[] = {
    SCMP_SYS(fdatasync), SCMP_SYS(fsync),  SCMP_SYS(mkdir),   SCMP_SYS(open),
    SCMP_SYS(openat),    SCMP_SYS(rename), SCMP_SYS(symlink), SCMP_SYS(unlink),
};

// Conditions on the argument with that index, from 0.
constexpr scmp_arg_cmp equals(unsigned argument, scmp_datum_t value) {
  return {argument, SCMP_CMP_EQ, value, 0};
}
constexpr scmp_arg_cmp masked(unsigned argument, scmp_datum_t mask, scmp_datum_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

class Filter {
 public:
  Filter() : context_(seccomp_init(SCMP_ACT_ERRNO(EPERM))) {}
  ~Filter() {
    if (context_ != nullptr) seccomp_release(context_);
  }
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  void load(bool writing) {
    if (context_ == nullptr) return;
    for (const int call : kAllowed) allow(call);
    if (writing) {
      for (const int call : kAllowedForWriting) allow(call);
    } else {
      const scmp_datum_t changes = O_ACCMODE | O_CREAT | O_TRUNC;
      allow(SCMP_SYS(open), {masked(1, changes, O_RDONLY)});
      allow(SCMP_SYS(openat), {masked(2, changes, O_RDONLY)});
    }
    allow_with_limits();
    if (whole_) seccomp_load(context_);
  }

 private:
  // The call is allowed when its arguments meet all conditions.
  void allow(int call, std::initializer_list<scmp_arg_cmp> conditions = {}) {
    const int added =
        seccomp_rule_add_array(context_, SCMP_ACT_ALLOW, call,
                               static_cast<unsigned>(conditions.size()), conditions.begin());
    whole_ = whole_ && added == 0;
  }

  void allow_with_limits() {
    allow(SCMP_SYS(mmap), {masked(2, PROT_EXEC, 0)});
    allow(SCMP_SYS(mprotect), {masked(2, PROT_EXEC, 0)});
    // abort() of this process.
    allow(SCMP_SYS(tgkill), {equals(0, static_cast<scmp_datum_t>(getpid()))});
    // Whether a stream is a terminal.
    allow(SCMP_SYS(ioctl), {equals(1, TCGETS)});
    // The system log, over the connection that is open.
    allow(SCMP_SYS(sendto), {equals(4, 0)});
  }

  scmp_filter_ctx context_;
  bool whole_ = true;  // false: a rule could not be added; the filter would deny too much
};

}  // namespace

void enter_sandbox(const SandboxRights& rights) {
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return;
  restrict_file_system(rights);
  Filter().load(!rights.writable.empty());
}

}  // namespace symforge_internal

#endif
