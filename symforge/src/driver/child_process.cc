#include "symforge/src/driver/child_process.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace symforge_internal {

void end_with_parent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // A parent that ended before that call sends no signal.
  if (getppid() != parent) _exit(1);
}

}  // namespace symforge_internal
