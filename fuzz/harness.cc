#include "fuzz/harness.h"

#include <malloc.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/mapped_file.h"
#include "symforge/src/StreamReader.h"

extern "C" __attribute__((weak)) void __asan_init();  // defined in builds with a sanitizer

namespace fuzzing {
namespace {

// The assertions that input can violate.
constexpr std::string_view kDocumentedAssertions[] = {
    "current_function != nullptr",                // an inline site outside of a function
    "ok.second",                                  // unwind data that save a register twice
    "fp_offset != INT32_MAX",                     // unwind data that never set the frame register
    "number < uint64_t{m_indexPages} * m_items",  // a directory longer than its declared size
};

sigjmp_buf run_start;
size_t aborted = 0;
bool left_mappings = false;

// The heap memory in use by operator new, and its peak.
std::atomic<size_t> heap_bytes = 0;
std::atomic<size_t> heap_peak = 0;

double thread_seconds() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void* allocate(size_t size) {
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  const size_t now = heap_bytes += malloc_usable_size(memory);
  if (now > heap_peak) heap_peak = now;
  return memory;
}

void release(void* memory) {
  if (memory == nullptr) return;
  heap_bytes -= malloc_usable_size(memory);
  std::free(memory);
}

// Inputs are files in memory. Unmaps those that an aborted run has mapped before the next run; the
// target has destroyed its own objects by then.
void unmap_left_files() {
  using symforge_internal::MMapWrapper;
  std::ifstream maps("/proc/self/maps");
  std::vector<std::pair<uintptr_t, uintptr_t>> left;
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/memfd:memory") == line.npos) continue;
    char* end = nullptr;
    const uintptr_t first = std::strtoull(line.c_str(), &end, 16);
    left.emplace_back(first, std::strtoull(end + 1, nullptr, 16) + MMapWrapper::kGuardBytes);
  }
  for (const auto& [first, end] : left) munmap(reinterpret_cast<void*>(first), end - first);
}

[[noreturn]] void fault(const char* what) {
  std::fprintf(stderr, "fault: %s\n", what);
  std::fflush(nullptr);
  __builtin_trap();
}

// abort() raises its signal after releasing its locks, so jumping out of the handler is safe.
[[noreturn]] void leave_run(int) { siglongjmp(run_start, 1); }

// Installs leave_run() for the signal of documented exits while the object exists.
class SignalScope {
 public:
  SignalScope() {
    struct sigaction action = {};
    action.sa_handler = leave_run;
    sigaction(SIGABRT, &action, &old_abort_);
  }
  ~SignalScope() { sigaction(SIGABRT, &old_abort_, nullptr); }

 private:
  struct sigaction old_abort_ = {};
};

}  // namespace

Outcome run_expecting_exit(const std::function<void()>& conversion) {
  if (std::exchange(left_mappings, false)) unmap_left_files();
  const SignalScope signals;
  if (sigsetjmp(run_start, /*savemask=*/1) != 0) {
    ++aborted;
    left_mappings = true;
    return Outcome::kAborted;
  }
  try {
    conversion();
  } catch (const symforge_internal::pdb_exception&) {
    return Outcome::kThrew;
  } catch (const symforge_internal::LimitExceeded&) {
    return Outcome::kThrew;
  } catch (const std::out_of_range&) {
    return Outcome::kThrew;
  } catch (const std::exception& e) {
    fault(e.what());
  }
  return Outcome::kReturned;
}

void bounded(const char* what, double seconds, size_t bytes, const std::function<void()>& call) {
  const double slower = __asan_init != nullptr ? 100 : 5;
  const size_t before = heap_bytes;
  heap_peak = before;
  const double start = thread_seconds();
  call();
  const double taken = thread_seconds() - start;
  const std::string name = what;
  if (taken > slower * seconds) fault((name + ": too long").c_str());
  if (heap_peak - before > bytes) fault((name + ": too much memory").c_str());
}

// The time includes the factor 5 of bounded().
void bounded_conversion(size_t input_bytes, const std::function<size_t()>& convert) {
  const double seconds = (1 + 120e-9 * static_cast<double>(input_bytes)) / 5;
  size_t output = 0;
  bounded("a conversion", seconds, 64 * kMebibyte + 6 * input_bytes, [&] { output = convert(); });
  require(output <= 16 * kMebibyte + 16 * input_bytes, "a limited output");
}

Outcome run_limited(size_t input_bytes, const symforge_internal::TextBuffer& output,
                    const std::function<void()>& conversion) {
  Outcome outcome = Outcome::kReturned;
  bounded_conversion(input_bytes, [&] {
    outcome = run_expecting_exit(conversion);
    return output.size();
  });
  return outcome;
}

size_t aborted_runs() { return aborted; }

void require(bool condition, const char* what) {
  if (!condition) fault(what);
}

}  // namespace fuzzing

// Replaces the operator of the C++ library in order to count.
void* operator new(size_t size) { return fuzzing::allocate(size); }
void* operator new[](size_t size) { return fuzzing::allocate(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept try {
  return fuzzing::allocate(size);
} catch (const std::bad_alloc&) {
  return nullptr;
}
void operator delete(void* memory, const std::nothrow_t&) noexcept { fuzzing::release(memory); }
void operator delete(void* memory) noexcept { fuzzing::release(memory); }
void operator delete[](void* memory) noexcept { fuzzing::release(memory); }
void operator delete(void* memory, size_t) noexcept { fuzzing::release(memory); }
void operator delete[](void* memory, size_t) noexcept { fuzzing::release(memory); }

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
