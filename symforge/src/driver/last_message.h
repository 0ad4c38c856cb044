// The last message of a process that a damaged file ends: a failed check, an exception that is not
// caught, a processor fault, a mapped file that another process truncates.
//
// A worker (parallel/worker_pool.h) only ends its attempt, and has no message.
//
// Default mode: the message "symforge: INPUT: what happened", after the library's own message, and
// then the signal ends the process as usual. Standard mode: that message alone, and exit status 1.

#pragma once

namespace symforge_internal {

// Installs the handlers. The mode and the input are those of messages.h at the time of the end.
// Linking this file also replaces the C and C++ libraries' reports of failed assertions, whose text
// is the same in default mode.
void install_last_message();

}  // namespace symforge_internal
