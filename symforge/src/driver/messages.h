// Messages of the driver about failures.
//
// Default mode logs them through syslog, which the program opens so that they also reach standard
// error. Standard mode writes one line "symforge: INPUT: what is wrong" to standard error and
// nothing to the system log. The mode and the input are properties of the process: a process
// converts one input, or runs one batch.
//
// Not for use by several threads at once.

#pragma once

#include <string>
#include <string_view>

namespace symforge_internal {

// Selects the form of the messages. Default mode is selected when this is never called.
void select_standard_messages(bool standard);
bool standard_messages();

// Names the input that later messages of standard mode, and the last message before a fatal signal
// ends the process, are about. Null or never called: none. The name is copied.
void set_message_input(const char* name);

// "symforge: INPUT: ", or "symforge: " without an input, with control characters escaped. Safe to
// call from a signal handler.
std::string_view message_prefix();

// Reports a failure. The text has no line end. Names that come from outside must be passed through
// printable().
__attribute__((format(printf, 1, 2))) void report(const char* format, ...);

// Reports that the system refused something, with the reason in `errno`: "WHAT: 28" in default
// mode, "WHAT: No space left on device" in standard mode. Keeps `errno`.
void report_errno(const char* what);

}  // namespace symforge_internal
