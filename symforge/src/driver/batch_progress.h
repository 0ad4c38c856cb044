// What a batch tells while it runs and when it ends.

#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace symforge_internal {

// Counts the results of a batch. Shows a line that is updated in place (done, failed, left, rate,
// the file in work), and in standard mode reports a summary at the end.
class BatchProgress {
 public:
  // `total`: the number of conversions. `shown`: whether the line is shown; only for a terminal.
  BatchProgress(size_t total, bool shown);
  ~BatchProgress() { hide(); }
  BatchProgress(const BatchProgress&) = delete;
  BatchProgress& operator=(const BatchProgress&) = delete;

  void started(const char* name);
  void ended(const char* name, bool converted);
  // A conversion that the end of the batch stopped.
  void stopped() { ++stopped_; }
  // Inputs without a conversion of their own.
  void add_skipped(size_t count) { skipped_ += count; }
  void add_unreadable(const std::vector<std::string>& paths);

  // Removes the line, so that something else can be printed.
  void hide();

  size_t converted() const { return converted_; }
  size_t failed() const { return failed_; }
  size_t skipped() const { return skipped_; }

  // Reports the counts in one line. `signal`: what ended the batch early, or 0.
  void summarize(int signal);

 private:
  using Clock = std::chrono::steady_clock;

  double seconds() const;
  void add_failed(const char* name);
  void show();

  const size_t total_;
  const bool shown_;
  const Clock::time_point begin_ = Clock::now();
  Clock::time_point next_update_ = begin_;
  std::string current_;
  size_t line_size_ = 0;  // of the line on the terminal
  size_t converted_ = 0;
  size_t failed_ = 0;
  size_t skipped_ = 0;
  size_t stopped_ = 0;
  size_t ended_ = 0;
  std::vector<std::string> failed_names_;
};

// Whether standard error is a terminal, on which a line can be updated.
bool has_terminal();

}  // namespace symforge_internal
