// The resolver's log: one line per statement, information to std::clog and errors to std::cerr.
//
//   SYMFORGE_LOG(ERROR) << "Could not open " << path;
//
// writes
//
//   1605312000s: source_line_resolver_base.cc:186: ERROR: Could not open /tmp/a.sym
//
// and flushes. There are no locks: the output of concurrent statements may interleave.

#pragma once

#include <iostream>
#include <ostream>
#include <string>

namespace google_breakpad {

// One log line: the constructor writes the prefix, the call site streams the message, the
// destructor ends the line.
class LogStream {
 public:
  enum Severity : int { SEVERITY_INFO = 0, SEVERITY_ERROR = 1, SEVERITY_CRITICAL = 2 };

  // Writes "<seconds since the epoch>s: <last component of file>:<line>: <severity>: ".
  // `stream` must outlive this object; `file` must not be null.
  LogStream(std::ostream& stream, Severity severity, const char* file, int line);
  ~LogStream();

  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  template <typename T>
  std::ostream& operator<<(const T& t) {
    return stream_ << t;
  }

 private:
  std::ostream& stream_;
};

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

#define SYMFORGE_LOG_STREAM_INFO std::clog
#define SYMFORGE_LOG_STREAM_ERROR std::cerr
// severity: INFO or ERROR.
#define SYMFORGE_LOG(severity)                                                              \
  ::google_breakpad::LogStream(SYMFORGE_LOG_STREAM_##severity,                              \
                               ::google_breakpad::LogStream::SEVERITY_##severity, __FILE__, \
                               __LINE__)
// The message continues after the macro, so the expression cannot be in parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define SYMFORGE_LOG_IF(severity, condition) \
  !(condition) ? (void)0 : ::google_breakpad::LogMessageVoidify() & SYMFORGE_LOG(severity)
// NOLINTEND(bugprone-macro-parentheses)
