// What a process says when a damaged file ends it: a failed check, an exception that nobody
// catches, a fault of the processor, a mapped file that another process cuts short.
//
// Default mode: the message "symforge: INPUT: what happened", after what the library prints, and
// then the signal ends the process as it would without this. Standard mode: that message alone,
// and exit status 1.

#pragma once

namespace symforge_internal {

// Installs the handlers. The mode and the input are those of messages.h at the time of the end.
// Linking this file also replaces the C and C++ libraries' reports of failed assertions, which
// reads the same in default mode.
void install_last_message();

}  // namespace symforge_internal
