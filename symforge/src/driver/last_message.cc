#include "symforge/src/driver/last_message.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "symforge/src/driver/conversion_report.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/parallel/worker_pool.h"

namespace symforge_internal {

namespace {

struct FatalSignal {
  int number;
  std::string_view reason;
};

constexpr FatalSignal kFatalSignals[] = {
    {SIGABRT, "a check failed, the file is damaged or not supported"},
    {SIGBUS, "the file was cut short while it was read"},
    {SIGSEGV, "ended by an invalid memory access"},
    {SIGFPE, "ended by an arithmetic error"},
    {SIGILL, "ended by an invalid instruction"},
};

void put(std::string_view text) {
  const ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
  static_cast<void>(ignored);
}

// Writes one line, with one system call unless it is too long. Safe in a signal handler.
void put_line(std::string_view reason) {
  char line[4096];
  const std::string_view prefix = message_prefix();
  const size_t size = prefix.size() + reason.size() + 1;
  if (size > sizeof line) {
    put(prefix);
    put(reason);
    put("\n");
    return;
  }
  std::memcpy(line, prefix.data(), prefix.size());
  std::memcpy(line + prefix.size(), reason.data(), reason.size());
  line[size - 1] = '\n';
  put({line, size});
}

// Ends a conversion of standard mode with a message.
[[noreturn]] void end_with(std::string_view reason) {
  put_line(reason);
  end_report_by_exit(1, reason);
  _exit(1);
}

void on_fatal_signal(int number) {
  WorkerPool::stopWorker();
  for (const FatalSignal& fatal : kFatalSignals) {
    if (fatal.number != number) continue;
    if (standard_messages()) end_with(fatal.reason);
    put_line(fatal.reason);
    end_report_by_signal(number, fatal.reason);
  }
  signal(number, SIG_DFL);
  raise(number);  // takes effect when the handler returns
}

[[noreturn]] void on_terminate() {
  WorkerPool::stopWorker();
  if (standard_messages()) end_with("ended by an exception");
  // The library's own handler prints which exception it is, and aborts.
  std::set_terminate(nullptr);
  std::get_terminate()();
  std::abort();
}

// In standard mode prints the one line; in default mode calls `report`, like the library.
template <typename Report>
[[noreturn]] void fail_check(const char* check, Report report) {
  WorkerPool::stopWorker();
  if (standard_messages()) {
    end_with(std::string("damaged or not supported, this does not hold: ").append(check));
  }
  report();
  std::abort();
}

// A handler cannot run on a stack that has overflowed.
void install_signal_stack() {
  alignas(16) static char stack[64 * 1024];
  stack_t description = {};
  description.ss_sp = stack;
  description.ss_size = sizeof stack;
  sigaltstack(&description, nullptr);
}

}  // namespace

void install_last_message() {
  install_signal_stack();
  std::set_terminate(on_terminate);
  for (const FatalSignal& fatal : kFatalSignals) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizer reports the others.
    if (fatal.number != SIGABRT && fatal.number != SIGFPE) continue;
#endif
    struct sigaction action = {};
    action.sa_handler = on_fatal_signal;
    action.sa_flags = SA_ONSTACK;
    sigaction(fatal.number, &action, nullptr);
  }
}

}  // namespace symforge_internal

// The libraries' operations for failed checks: assert(), and the range checks of containers.

// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" [[noreturn]] void __assert_fail(const char* check, const char* file, unsigned line,
                                           const char* function) noexcept {
  symforge_internal::fail_check(check, [=] {
    std::fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
                 file, line, function, check);
  });
}

namespace std {
[[gnu::noreturn]] void __glibcxx_assert_fail(const char* file, int line, const char* function,
                                             const char* check) noexcept {
  symforge_internal::fail_check(check, [=] {
    std::fprintf(stderr, "%s:%d: %s: Assertion '%s' failed.\n", file, line, function, check);
  });
}
}  // namespace std
