// A process gives up its rights before it works on a file from a stranger.
//
// Two mechanisms of Linux, each used as far as the kernel has it:
// - Landlock: of the file system only the files and folders that are named here can be reached.
// - seccomp: system calls other than those of a conversion fail with EPERM. So nothing can be
//   executed, no process be made or looked into, no socket be made, no memory become executable.
//
// A kernel without one of them, or one that refuses, is no error. Builds with a sanitizer or with
// coverage have no sandbox: their run-time libraries need what it takes away.

#pragma once

#include <string>
#include <vector>

namespace symforge_internal {

// What is left to the process besides the descriptors that it has open.
struct SandboxRights {
  std::vector<std::string> readable;  // files that can be opened for reading
  std::vector<std::string> writable;  // folders in which everything below can be read and replaced
};

// Gives up all rights but these, for this process and for good. Paths that do not exist are
// skipped. To be called by a process with one thread. What a later message needs (the connection to
// the system log, the time zone) must be open or loaded.
void enter_sandbox(const SandboxRights& rights);

}  // namespace symforge_internal
