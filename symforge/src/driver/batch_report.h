// What a batch itself appends to the report of its conversions: the lines of those that a signal
// ended, and the summary. The children append the other lines.

#pragma once

#include <cstdint>

#include "base/file_io.h"
#include "symforge/src/driver/child_process.h"
#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/report_line.h"

namespace symforge_internal {

class BatchReport {
 public:
  // `path`: as the option --report has it, or null for no report. A file that cannot be opened is
  // reported.
  explicit BatchReport(const char* path);

  // Whether there is a report that can be written, or none.
  bool is_ready() const { return !wanted_ || file_.is_open(); }

  // Appends a line for a child that a signal ended; nothing for another end.
  void add_end(const ConversionInput& input, const Children::End& end);

  void add_summary(const BatchFacts& facts, int status);

 private:
  const uint64_t start_;  // milliseconds
  const bool wanted_;
  const FileDescriptor file_;
};

}  // namespace symforge_internal
