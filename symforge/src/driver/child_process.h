// Child processes of a batch.

#pragma once

#include <sys/types.h>

namespace symforge_internal {

// To be called by a child after its fork: the kernel ends this process when the process `parent`
// ends, also when that is the case already. An execve() keeps this.
void end_with_parent(pid_t parent);

}  // namespace symforge_internal
