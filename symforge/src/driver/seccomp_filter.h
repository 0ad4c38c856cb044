// The system calls that a conversion needs, as a program for the kernel's seccomp filter.
//
// The program is built here and not by a library, as building is a large part of what the start of
// a small conversion costs: a search tree over the numbers of the calls, at most seven comparisons
// deep. Its format is classic BPF (linux/filter.h).

#pragma once

#include <linux/filter.h>
#include <sys/types.h>

#include <vector>

namespace symforge_internal {

// `writing`: whether files can be written and replaced, as into a symbol tree. `process`: the one
// that may send signals to its own threads, as abort() does. All other calls fail with EPERM; calls
// by the numbers of another architecture end the process.
std::vector<sock_filter> seccomp_filter(bool writing, pid_t process);

}  // namespace symforge_internal
