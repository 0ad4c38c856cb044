#include "processor/logging.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "processor/pathname_stripper.h"

namespace google_breakpad {

namespace {

const char* severity_word(LogStream::Severity severity) {
  switch (severity) {
    case LogStream::SEVERITY_INFO:
      return "INFO";
    case LogStream::SEVERITY_ERROR:
      return "ERROR";
    case LogStream::SEVERITY_CRITICAL:
      return "CRITICAL";
  }
  return "UNKNOWN_SEVERITY";
}

}  // namespace

LogStream::LogStream(std::ostream& stream, Severity severity, const char* file, int line)
    : stream_(stream) {
  stream_ << std::time(nullptr) << "s: " << PathnameStripper::File(file) << ":" << line << ": "
          << severity_word(severity) << ": ";
}

LogStream::~LogStream() { stream_ << std::endl; }

bool LogLimit::Admits() {
  if (messages_ > kMaxMessages) return false;
  if (messages_++ < kMaxMessages) return true;
  SYMFORGE_LOG(INFO) << "Further messages of this kind are left out";
  return false;
}

int ErrnoString(std::string* error_string) {
  assert(error_string);
  const int error = errno;
  error_string->assign(strerror(error));
  return error;
}

std::string HexString(unsigned long number) {
  char buffer[19];
  snprintf(buffer, sizeof(buffer), "0x%lx", number);
  return buffer;
}

}  // namespace google_breakpad
