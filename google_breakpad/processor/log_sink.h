// Where the resolver's log lines go.
//
// By default errors are written to std::cerr and information to std::clog, one line each:
//
//   1605312000s: source_line_resolver_base.cc:186: ERROR: Could not open /tmp/a.sym
//
// Information lines are left out unless the host asks for them.
//
// The settings apply to the whole process. They may be changed at any time and by any thread. A
// line that another thread is writing at that moment may still go to the previous sink.

#pragma once

#include <string_view>

namespace google_breakpad {

enum class LogSeverity : int { kInfo = 0, kError = 1, kCritical = 2 };

// One log line. The strings are valid during the call of the sink only.
struct LogLine {
  LogSeverity severity;
  std::string_view file;     // the source file of the library that writes the line
  int line;                  // the position in that file
  std::string_view message;  // without a line end; names from files are printable
};

// Receives each line. `context` is the pointer that was set together with the sink. The sink is
// called on the thread that logs, concurrently by several threads, and must not throw.
using LogSink = void (*)(void* context, const LogLine& line);

// Sets the sink. A null sink restores the default. The library does not use `context` itself.
void SetLogSink(LogSink sink, void* context);

// A sink that writes nothing.
void DiscardLogLine(void* context, const LogLine& line);

// Whether information lines are written. They tell what is loaded, and which ranges of a symbol
// file were dropped. Off at first.
void SetLogInformation(bool wanted);

}  // namespace google_breakpad
