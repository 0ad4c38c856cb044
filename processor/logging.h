// The resolver's log: one line per statement, passed to the sink of log_sink.h.
//
//   SYMFORGE_LOG(ERROR) << "Could not open " << path;
//
// Nothing is formatted for information lines unless the host asked for them.

#pragma once

#include <ostream>
#include <sstream>
#include <string>

#include "google_breakpad/processor/log_sink.h"

namespace google_breakpad {

// One log line: the call site streams the message, the destructor passes the line to the sink.
class LogStream {
 public:
  static constexpr LogSeverity SEVERITY_INFO = LogSeverity::kInfo;
  static constexpr LogSeverity SEVERITY_ERROR = LogSeverity::kError;

  // `file` must not be null and must outlive this object.
  LogStream(LogSeverity severity, const char* file, int line)
      : severity_(severity), file_(file), line_(line) {}
  ~LogStream();

  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  template <typename T>
  std::ostream& operator<<(const T& t) {
    return stream_ << t;
  }

 private:
  const LogSeverity severity_;
  const char* const file_;
  const int line_;
  std::ostringstream stream_;
};

// Whether lines of that severity are written.
bool LogWanted(LogSeverity severity);

// Converts a streamed message to void, so that a conditional log statement is one expression:
//   condition ? (void)0 : LogMessageVoidify() & LogStream(...) << "message"
class LogMessageVoidify {
 public:
  void operator&(std::ostream&) {}
};

// Limits the number of messages of one kind, which input determines.
//
//   if (limit.Admits()) SYMFORGE_LOG(INFO) << ...;
class LogLimit {
 public:
  static constexpr int kMaxMessages = 1000;

  // Whether to write the next message. After the last one, logs that further ones are omitted.
  bool Admits();

 private:
  int messages_ = 0;
};

// Stores the text of the current errno in `*error_string`; returns errno.
int ErrnoString(std::string* error_string);

// Formats "0x" and the number in lower-case hexadecimal, unpadded.
std::string HexString(unsigned long number);

}  // namespace google_breakpad

// severity: INFO or ERROR. The message continues after the macro, so the expression cannot be in
// parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define SYMFORGE_LOG(severity)                                                              \
  !::google_breakpad::LogWanted(::google_breakpad::LogStream::SEVERITY_##severity)          \
      ? (void)0                                                                             \
      : ::google_breakpad::LogMessageVoidify() &                                            \
            ::google_breakpad::LogStream(::google_breakpad::LogStream::SEVERITY_##severity, \
                                         __FILE__, __LINE__)
// NOLINTEND(bugprone-macro-parentheses)
