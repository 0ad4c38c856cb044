#include "symforge/src/driver/messages.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/file_io.h"
#include "base/printable.h"

namespace symforge_internal {

namespace {

constexpr int kPriority = LOG_USER | LOG_ERR;
constexpr std::string_view kProgram = "symforge: ";

bool is_standard = false;
std::string prefix(kProgram);
std::string latest;

std::string format_text(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(length < 0 ? 0 : static_cast<size_t>(length), '\0');
  vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

}  // namespace

void select_standard_messages(bool standard) { is_standard = standard; }
bool standard_messages() { return is_standard; }

void set_message_input(const char* name) {
  prefix = kProgram;
  if (name != nullptr) prefix.append(printable(name)).append(": ");
}

std::string_view message_prefix() { return prefix; }

const std::string& latest_message() { return latest; }
void set_latest_message(std::string text) { latest = std::move(text); }

void report(const char* format, ...) {
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  const std::string text = format_text(format, arguments);
  va_end(arguments);
  if (is_standard) {
    // One write, so that lines of several processes do not mix.
    write_file(STDERR_FILENO, prefix + text + "\n");
  } else {
    syslog(kPriority, "%s\n", text.c_str());
  }
  latest = text;
  errno = error;
}

void report_errno(const char* what) {
  if (is_standard) {
    report("%s: %s", what, strerror(errno));
  } else {
    report("%s: %d", what, errno);
  }
}

}  // namespace symforge_internal
