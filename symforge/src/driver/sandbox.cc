#include "symforge/src/driver/sandbox.h"

#ifndef SYMFORGE_SANDBOX

namespace symforge_internal {
void enter_sandbox(const SandboxRights&) {}
}  // namespace symforge_internal

#else

#include <fcntl.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

#include "base/file_io.h"
#include "symforge/src/driver/seccomp_filter.h"

namespace symforge_internal {

namespace {

// ---- Landlock
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

void restrict_system_calls(bool writing) {
  std::vector<sock_filter> filter = seccomp_filter(writing, getpid());
  sock_fprog program = {};
  program.len = static_cast<unsigned short>(filter.size());
  program.filter = filter.data();
  syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program);
}

}  // namespace

void enter_sandbox(const SandboxRights& rights) {
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return;
  restrict_file_system(rights);
  restrict_system_calls(!rights.writable.empty());
}

}  // namespace symforge_internal

#endif
