// The signals that ask the program to end: SIGHUP, SIGINT and SIGTERM. Those that the caller of the
// program ignores remain ignored.

#pragma once

#include <csignal>

namespace symforge_internal {

inline constexpr int kEndSignals[] = {SIGHUP, SIGINT, SIGTERM};

// The exit status of a program that such a signal ended.
constexpr int status_of_signal(int signal) { return 128 + signal; }

// From here on such a signal removes the unfinished file of this process, and then ends the process
// as it would without a handler.
void clean_up_on_end_signals();

// From here on such a signal ends the process with status_of_signal(). In standard mode a message
// says that nothing was converted.
void exit_on_end_signals();

// From here on such a signal is only stored for end_signal().
void store_end_signals();

// The last signal that was stored, or one that is blocked and pending, or 0.
int end_signal();

// Gives the signals their default actions.
void reset_end_signals();

}  // namespace symforge_internal
