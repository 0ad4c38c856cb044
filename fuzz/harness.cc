#include "fuzz/harness.h"

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "symforge/src/StreamReader.h"

namespace fuzzing {
namespace {

// The assertions that input can violate.
constexpr std::string_view kDocumentedAssertions[] = {
    "m_seqPageEnd > m_data",                      // a page number that wraps
    "current_function != nullptr",                // an inline site outside of a function
    "ok.second",                                  // unwind data that save a register twice
    "fp_offset != INT32_MAX",                     // unwind data that never set the frame register
    "number < uint64_t{m_indexPages} * m_items",  // a directory longer than its declared size
};

sigjmp_buf run_start;
size_t aborted = 0;

[[noreturn]] void fault(const char* what) {
  std::fprintf(stderr, "fault: %s\n", what);
  std::fflush(nullptr);
  __builtin_trap();
}

// abort() raises its signal after releasing its locks, so jumping out of the handler is safe.
[[noreturn]] void leave_run(int) { siglongjmp(run_start, 1); }

// Installs leave_run() for the two signals of documented exits while the object exists.
class SignalScope {
 public:
  SignalScope() {
    struct sigaction action = {};
    action.sa_handler = leave_run;
    sigaction(SIGABRT, &action, &old_abort_);
    sigaction(SIGFPE, &action, &old_division_);
  }
  ~SignalScope() {
    sigaction(SIGABRT, &old_abort_, nullptr);
    sigaction(SIGFPE, &old_division_, nullptr);
  }

 private:
  struct sigaction old_abort_ = {};
  struct sigaction old_division_ = {};
};

}  // namespace

Outcome run_expecting_exit(const std::function<void()>& conversion) {
  const SignalScope signals;
  if (sigsetjmp(run_start, /*savemask=*/1) != 0) {
    ++aborted;
    return Outcome::kAborted;
  }
  try {
    conversion();
  } catch (const symforge_internal::pdb_exception&) {
    return Outcome::kThrew;
  } catch (const std::out_of_range&) {
    return Outcome::kThrew;
  } catch (const std::exception& e) {
    fault(e.what());
  }
  return Outcome::kReturned;
}

size_t aborted_runs() { return aborted; }

void require(bool condition, const char* what) {
  if (!condition) fault(what);
}

}  // namespace fuzzing

// Called by the leak checker: what an aborted run did not free is not a leak of the program.
extern "C" int __lsan_is_turned_off() { return fuzzing::aborted_runs() != 0; }

// Replaces the C library's function: an assertion that input cannot violate is a fault.
extern "C" void __assert_fail(const char* assertion, const char*, unsigned, const char*) noexcept {
  const auto& documented = fuzzing::kDocumentedAssertions;
  if (std::find(std::begin(documented), std::end(documented), assertion) == std::end(documented)) {
    fuzzing::fault(assertion);
  }
  std::abort();
}
