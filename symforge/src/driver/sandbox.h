// Dropping the rights of a process before it reads an untrusted file.
//
// Two mechanisms of Linux, each used as far as the kernel has it:
// - Landlock: only the named files and folders can be accessed.
// - seccomp: system calls other than those of a conversion fail with EPERM. So the process cannot
//   execute programs, create or inspect processes, create sockets, or make memory executable.
//
// If the kernel lacks or refuses one of them, that one is skipped. Builds with a sanitizer or with
// coverage have no sandbox: their run-time libraries need more rights.

#pragma once

#include <string>
#include <vector>

namespace symforge_internal {

// The rights that remain, besides open descriptors.
struct SandboxRights {
  std::vector<std::string> readable;  // files that can be opened for reading
  std::vector<std::string> writable;  // folders in which everything below can be read and replaced
};

// Permanently drops all other rights of this thread, and those of threads that it starts. Other
// threads of the process keep theirs. Paths that do not
// exist are skipped. Whatever later messages need (the connection to the system log, the time zone)
// must be open or loaded.
void enter_sandbox(const SandboxRights& rights);

}  // namespace symforge_internal
