#include "symforge/src/driver/conversion_report.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "base/file_io.h"
#include "base/printable.h"
#include "symforge/src/driver/messages.h"

namespace symforge_internal {

namespace {

// The one report of this process.
struct Report {
  int fd = -1;         // -1: there is none, or its line was written
  bool child = false;  // of a batch
  uint64_t start = 0;
  ConversionFacts facts;
  std::string head;  // of the line, as long as the conversion has no result
};

Report current;

ConversionEnd end_now(int status, int signal, std::string_view message) {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return {.milliseconds = clock_milliseconds() - current.start,
          .peak_memory = peak_memory(usage),
          .status = status,
          .signal = signal,
          .message = message};
}

// Safe in signal handlers. One call, so that lines of several processes do not mix.
void append_in_handler(const ConversionEnd& end) {
  if (current.fd == -1) return;
  char tail[4096];
  const size_t size = put_report_tail(end, tail, sizeof tail);
  const iovec parts[] = {{current.head.data(), current.head.size()}, {tail, size}};
  const ssize_t ignored = writev(current.fd, parts, 2);
  static_cast<void>(ignored);
  current.fd = -1;
}

void on_exit_of_process(int status, void* /*unused*/) {
  constexpr int kStatusBits = 0xFF;
  end_report(status & kStatusBits, latest_message());
}

uint64_t size_of(const char* path) {
  struct stat status;
  if (path == nullptr || stat(path, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  return static_cast<uint64_t>(status.st_size);
}

ConversionFacts facts_of(const ConversionInput& input) {
  ConversionFacts facts;
  facts.input = input.name();
  facts.identity = identify_file(facts.input);
  facts.bytes_in = size_of(input.name());
  if (input.pdb != nullptr && input.exe != nullptr) facts.image = input.exe;
  return facts;
}

}  // namespace

uint64_t clock_milliseconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

uint64_t peak_memory(const rusage& usage) { return static_cast<uint64_t>(usage.ru_maxrss) * 1024; }

int open_report(const char* path) {
  constexpr mode_t kMode = 0666;
  if (std::strcmp(path, "-") == 0) return STDERR_FILENO;
  const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kMode);
  if (fd == -1) report("cannot open the report %s: %s", printable(path).c_str(), strerror(errno));
  return fd;
}

bool begin_report(const ConversionInput& input, const ConversionOptions& options) {
  current = Report();
  current.start = clock_milliseconds();
  current.fd = open_report(options.report);
  if (current.fd == -1) return false;
  current.child = options.in_batch;
  current.facts = facts_of(input);
  current.head = report_head(current.facts);
  on_exit(on_exit_of_process, nullptr);
  return true;
}

ConversionFacts* report_facts() { return current.fd == -1 ? nullptr : &current.facts; }

bool end_report(int status, std::string_view message) {
  if (current.fd == -1) return true;
  const int fd = current.fd;
  current.fd = -1;
  const ConversionEnd end = end_now(status, 0, message);
  const bool written = write_file(fd, report_head(current.facts) + report_tail(end));
  if (!written) report("cannot write the report: %s", strerror(errno));
  if (fd != STDERR_FILENO) close(fd);
  return written;
}

void end_report_by_signal(int signal, std::string_view message) {
  if (!current.child) append_in_handler(end_now(0, signal, message));
}

void end_report_by_exit(int status, std::string_view message) {
  append_in_handler(end_now(status, 0, message));
}

void report_child_signal(int fd, const ConversionInput& input, uint64_t milliseconds,
                         const rusage& usage, int signal) {
  const std::string message = std::string("ended by signal: ") + strsignal(signal);
  const ConversionEnd end = {.milliseconds = milliseconds,
                             .peak_memory = peak_memory(usage),
                             .status = 0,
                             .signal = signal,
                             .message = message};
  write_file(fd, report_head(facts_of(input)) + report_tail(end));
}

}  // namespace symforge_internal
