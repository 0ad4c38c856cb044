#include "embedding/status.h"

#include <cstdarg>
#include <cstdio>

#include "common/symforge_version.h"
#include "google_breakpad/processor/log_sink.h"

namespace symforge_internal {

namespace {

constexpr size_t kTextBytes = 512;
thread_local char last_error[kTextBytes];

// A library is silent until its host sets a callback.
[[maybe_unused]] const bool kSilenced = [] {
  google_breakpad::SetLogSink(google_breakpad::DiscardLogLine, nullptr);
  return true;
}();

}  // namespace

symforge_status fail(symforge_status status, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(last_error, sizeof last_error, format, arguments);
  va_end(arguments);
  return status;
}

}  // namespace symforge_internal

uint32_t symforge_version(void) { return SYMFORGE_VERSION; }

const char* symforge_last_error(void) { return symforge_internal::last_error; }

const char* symforge_status_text(symforge_status status) {
  switch (status) {
    case SYMFORGE_OK:
      return "no error";
    case SYMFORGE_ERROR_ARGUMENT:
      return "wrong argument";
    case SYMFORGE_ERROR_NOT_FOUND:
      return "not found";
    case SYMFORGE_ERROR_READ:
      return "not readable";
    case SYMFORGE_ERROR_FORMAT:
      return "no symbol file, or a damaged one";
    case SYMFORGE_ERROR_TOO_SMALL:
      return "the memory of the caller is too small";
    case SYMFORGE_ERROR_MEMORY:
      return "out of memory";
    case SYMFORGE_ERROR_INTERNAL:
      return "internal error";
  }
  return "unknown status";
}
