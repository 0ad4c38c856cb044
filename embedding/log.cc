// The log callback of the C interface.

#include <cstring>
#include <mutex>
#include <string_view>

#include "google_breakpad/processor/log_sink.h"
#include "symforge/symforge.h"

namespace symforge_internal {

namespace {

using google_breakpad::LogLine;
using google_breakpad::LogSeverity;

constexpr size_t kLongestMessage = 4096;  // bytes with the NUL; longer ones are cut

struct Callback {
  symforge_log_callback function = nullptr;
  void* context = nullptr;
  int32_t lowest_severity = SYMFORGE_LOG_ERROR;
};

std::mutex callback_mutex;
Callback callback;

void pass_on(void*, const LogLine& line) {
  Callback target;
  {
    const std::lock_guard lock(callback_mutex);
    target = callback;
  }
  const int32_t severity =
      line.severity == LogSeverity::kInfo ? SYMFORGE_LOG_INFORMATION : SYMFORGE_LOG_ERROR;
  if (target.function == nullptr || severity < target.lowest_severity) return;
  char message[kLongestMessage];
  const std::string_view text = line.message.substr(0, sizeof message - 1);
  if (!text.empty()) std::memcpy(message, text.data(), text.size());
  message[text.size()] = '\0';
  target.function(target.context, severity, message);
}

}  // namespace

}  // namespace symforge_internal

void symforge_set_log(symforge_log_callback function, void* context, int32_t lowest_severity) {
  using namespace symforge_internal;
  {
    const std::lock_guard lock(callback_mutex);
    callback = {function, context, lowest_severity};
  }
  google_breakpad::SetLogInformation(function != nullptr &&
                                     lowest_severity <= SYMFORGE_LOG_INFORMATION);
  google_breakpad::SetLogSink(function == nullptr ? google_breakpad::DiscardLogLine : pass_on,
                              nullptr);
}
