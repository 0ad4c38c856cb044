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

// Selects the form of the messages; default mode at first.
void select_standard_messages(bool standard);
bool standard_messages();

// Sets the input that is named in later messages of standard mode and in the last message before a
// fatal signal. Null, as at first: none. The name is copied.
void set_message_input(const char* name);

// "symforge: INPUT: ", or "symforge: " without an input, with control characters escaped. Safe to
// call from a signal handler.
std::string_view message_prefix();

// Reports a failure. The text has no line end. Names that come from outside must be passed through
// printable().
__attribute__((format(printf, 1, 2))) void report(const char* format, ...);

// The text of the last message, or the one that was set in place of it. Empty at first.
const std::string& latest_message();
void set_latest_message(std::string text);

// Reports that the system refused something, with the reason in `errno`: "WHAT: 28" in default
// mode, "WHAT: No space left on device" in standard mode. Keeps `errno`.
void report_errno(const char* what);

}  // namespace symforge_internal
