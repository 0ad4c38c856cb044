#include "symforge/src/driver/batch_report.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "symforge/src/driver/conversion_report.h"

namespace symforge_internal {

namespace {

// A descriptor of its own also for standard error.
int open_own(const char* path) {
  if (path == nullptr) return -1;
  const int fd = open_report(path);
  return fd == STDERR_FILENO ? dup(fd) : fd;
}

}  // namespace

BatchReport::BatchReport(const char* path)
    : start_(clock_milliseconds()), wanted_(path != nullptr), file_(open_own(path)) {}

void BatchReport::add_end(const ConversionInput& input, const Children::End& end) {
  if (!file_.is_open() || !WIFSIGNALED(end.status)) return;
  report_child_signal(file_.get(), input, end.milliseconds, end.usage, WTERMSIG(end.status));
}

void BatchReport::add_summary(const BatchFacts& facts, int status) {
  if (!file_.is_open()) return;
  rusage usage = {};
  getrusage(RUSAGE_CHILDREN, &usage);
  const ConversionEnd end = {.milliseconds = clock_milliseconds() - start_,
                             .peak_memory = peak_memory(usage),
                             .status = status,
                             .signal = 0,
                             .message = {}};
  write_file(file_.get(), summary_line(facts, end));
}

}  // namespace symforge_internal
