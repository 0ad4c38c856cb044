#include "symforge/src/driver/batch_progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/file_io.h"
#include "base/printable.h"
#include "symforge/src/driver/messages.h"

namespace symforge_internal {

namespace {

constexpr auto kUpdateInterval = std::chrono::milliseconds(100);
// The names of more failures are not repeated in the summary.
constexpr size_t kMostFailedNames = 5;

size_t terminal_width() {
  constexpr size_t kUsual = 80;
  winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsual;
  return size.ws_col;
}

// Cuts a line to a number of bytes, not within a character of several bytes.
void cut(std::string& line, size_t size) {
  if (line.size() <= size) return;
  while (size > 0 && (static_cast<unsigned char>(line[size]) & 0xC0) == 0x80) --size;
  line.resize(size);
}

template <typename... Values>
std::string formatted(const char* format, Values... values) {
  char text[256];
  snprintf(text, sizeof text, format, values...);
  return text;
}

}  // namespace

bool has_terminal() { return isatty(STDERR_FILENO) == 1; }

BatchProgress::BatchProgress(size_t total, bool shown) : total_(total), shown_(shown) {}

double BatchProgress::seconds() const {
  return std::chrono::duration<double>(Clock::now() - begin_).count();
}

void BatchProgress::started(const char* name) {
  if (!shown_) return;
  current_ = printable(name);
  if (Clock::now() >= next_update_) show();
}

void BatchProgress::ended(const char* name, bool converted) {
  ++ended_;
  if (converted) {
    ++converted_;
  } else {
    add_failed(name);
  }
  if (shown_ && Clock::now() >= next_update_) show();
}

void BatchProgress::add_unreadable(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) add_failed(path.c_str());
}

void BatchProgress::add_failed(const char* name) {
  ++failed_;
  if (failed_names_.size() <= kMostFailedNames) failed_names_.push_back(printable(name));
}

void BatchProgress::show() {
  const double time = std::max(seconds(), 1e-3);
  std::string line = formatted("%zu done, %zu failed, %zu left, %.1f/s: ", converted_, failed_,
                               total_ - ended_, static_cast<double>(ended_) / time);
  line += current_;
  cut(line, terminal_width() - 1);
  const size_t old_size = std::exchange(line_size_, line.size());
  if (line.size() < old_size) line.append(old_size - line.size(), ' ');
  write_file(STDERR_FILENO, "\r" + line);
  next_update_ = Clock::now() + kUpdateInterval;
}

void BatchProgress::hide() {
  if (line_size_ == 0) return;
  write_file(STDERR_FILENO, "\r" + std::string(line_size_, ' ') + "\r");
  line_size_ = 0;
  next_update_ = begin_;
}

void BatchProgress::summarize(int signal) {
  hide();
  std::string text;
  if (signal != 0) text = std::string("stopped (") + strsignal(signal) + "): ";
  text += formatted("%zu converted, %zu failed", converted_, failed_);
  if (!failed_names_.empty() && failed_names_.size() <= kMostFailedNames) {
    const char* separator = " (";
    for (const std::string& name : failed_names_) {
      text.append(separator).append(name);
      separator = ", ";
    }
    text += ")";
  }
  text += formatted(", %zu skipped", skipped_);
  if (signal != 0) text += formatted(", %zu not converted", total_ - ended_);
  text += formatted(", %.1f seconds", seconds());
  report("%s", text.c_str());
}

}  // namespace symforge_internal
