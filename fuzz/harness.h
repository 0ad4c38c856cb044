// What every fuzz target shares: the entry point and the line between a
// documented end of the program and a fault.
//
// Some damaged PDBs end the program by design: an assertion or a container's range check aborts, a
// page size of 0 divides, std::out_of_range is caught by nobody. run_to_its_end() takes those for
// what they are, so that a fuzzer goes on. Nothing else is taken: a report of a sanitizer, an
// assertion that no input should reach, another exception, another signal, an exit, or a target's
// own require() ends the process. Texts, SYMB images and PEs have no such ends but for two of the
// unwind data; targets that read texts and images do without run_to_its_end().

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzzing {

enum class End {
  kReturned,
  kThrew,    // pdb_exception or std::out_of_range
  kAborted,  // the objects on the way are not destroyed; their mappings end with the next run
};

// Runs `conversion` and tells how it ended. Not to be nested.
End run_to_its_end(const std::function<void()>& conversion);

// How many runs were aborted so far. After one, leaks are not looked for any more.
size_t aborted_runs();

// Runs `call` and demands that it takes no more than `seconds` of this thread's time and at no
// moment more than `bytes` from the heap. That time is multiplied by 5, as tests run beside each
// other, and by 100 in builds with a sanitizer.
void bounded(const char* what, double seconds, size_t bytes, const std::function<void()>& call);

// What a target demands. Ends the process with the condition, which no run takes for documented.
void require(bool condition, const char* what);

}  // namespace fuzzing
