// Child processes of a batch.

#pragma once

#include <sys/types.h>

namespace symforge_internal {

// To be called by a child after its fork: the kernel ends this process when the process `parent`
// ends, or at once if it has ended. This remains in effect after execve().
void end_with_parent(pid_t parent);

}  // namespace symforge_internal
