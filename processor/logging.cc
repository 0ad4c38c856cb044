#include "processor/logging.h"

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <mutex>

#include "processor/pathname_stripper.h"

namespace google_breakpad {

namespace {

const char* severity_word(LogSeverity severity) {
  switch (severity) {
    case LogSeverity::kInfo:
      return "INFO";
    case LogSeverity::kError:
      return "ERROR";
    case LogSeverity::kCritical:
      return "CRITICAL";
  }
  return "UNKNOWN_SEVERITY";
}

// The default sink. There are no locks: the output of concurrent statements may interleave.
void write_to_standard_stream(void*, const LogLine& line) {
  std::ostream& stream = line.severity == LogSeverity::kInfo ? std::clog : std::cerr;
  stream << std::time(nullptr) << "s: " << PathnameStripper::File(std::string(line.file)) << ":"
         << line.line << ": " << severity_word(line.severity) << ": " << line.message << std::endl;
}

struct LogTarget {
  LogSink sink = write_to_standard_stream;
  void* context = nullptr;
};

std::mutex log_target_mutex;
LogTarget log_target;
std::atomic<bool> log_information = false;

}  // namespace

LogStream::~LogStream() {
  LogTarget target;
  {
    const std::lock_guard lock(log_target_mutex);
    target = log_target;
  }
  target.sink(target.context, {severity_, file_, line_, stream_.view()});
}

bool LogWanted(LogSeverity severity) {
  return severity != LogSeverity::kInfo || log_information.load(std::memory_order_relaxed);
}

void SetLogSink(LogSink sink, void* context) {
  const std::lock_guard lock(log_target_mutex);
  log_target = {sink == nullptr ? write_to_standard_stream : sink, context};
}

void DiscardLogLine(void*, const LogLine&) {}

void SetLogInformation(bool wanted) { log_information = wanted; }

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
