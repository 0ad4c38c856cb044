#include "symforge/src/driver/end_signals.h"

#include <unistd.h>

#include <string_view>

#include "base/file_io.h"
#include "symforge/src/driver/conversion_report.h"
#include "symforge/src/driver/messages.h"

namespace symforge_internal {

namespace {

volatile sig_atomic_t stored_signal = 0;

void clean_up(int number) {
  remove_unfinished_file();
  end_report_by_signal(number, "ended by a signal from outside");
  signal(number, SIG_DFL);
  raise(number);  // takes effect when the handler returns
}

void exit_now(int number) {
  constexpr std::string_view kMessage = "symforge: stopped before the first conversion\n";
  if (standard_messages()) {
    const ssize_t ignored = write(STDERR_FILENO, kMessage.data(), kMessage.size());
    static_cast<void>(ignored);
  }
  _exit(status_of_signal(number));
}

void store(int number) { stored_signal = number; }

void set_handler(void (*handler)(int)) {
  for (const int number : kEndSignals) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = handler;
    sigaction(number, &action, nullptr);
  }
}

}  // namespace

void clean_up_on_end_signals() { set_handler(clean_up); }
void exit_on_end_signals() { set_handler(exit_now); }
void store_end_signals() { set_handler(store); }
void reset_end_signals() { set_handler(SIG_DFL); }

int end_signal() {
  if (stored_signal != 0) return stored_signal;
  sigset_t pending;
  if (sigpending(&pending) != 0) return 0;
  for (const int number : kEndSignals) {
    if (sigismember(&pending, number) == 1) return number;
  }
  return 0;
}

}  // namespace symforge_internal
