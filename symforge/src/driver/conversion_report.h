// The report of the conversion that this process runs: what it finds is collected, and one line is
// appended when the conversion ends, in whatever way the process can notice: by a return, by
// exit(), by a failed check, or by a signal that has a handler.
//
// Not for use by several threads at once. Any number of processes may append to one file: each line
// is one write.

#pragma once

#include <sys/resource.h>

#include <string_view>

#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/report_line.h"

namespace symforge_internal {

// Opens the file to append to, "-": standard error. -1 if that fails; then reported. The caller
// closes the descriptor, except that of standard error.
int open_report(const char* path);

// Opens the report that `options` name, and collects the identity of the input. Call it before
// rights are dropped. False, and reported, if the file cannot be opened.
bool begin_report(const ConversionInput& input, const ConversionOptions& options);

// What is known about the conversion, to be completed. Null without a report.
ConversionFacts* report_facts();

// Appends the line, once. `message`: empty for none. False, and reported, if it cannot be written.
bool end_report(int status, std::string_view message);

// Append the line from a signal handler. The first one is for an end by a signal: the child of a
// batch writes nothing, because its parent does.
void end_report_by_signal(int signal, std::string_view message);
void end_report_by_exit(int status, std::string_view message);

// Appends the line of a child that a signal ended. `usage` is that of the child.
void report_child_signal(int fd, const ConversionInput& input, uint64_t milliseconds,
                         const rusage& usage, int signal);

// Milliseconds of a clock that only moves forward.
uint64_t clock_milliseconds();

// The greatest memory that was resident, in bytes.
uint64_t peak_memory(const rusage& usage);

}  // namespace symforge_internal
