// Shared by all fuzz targets: the distinction between documented ways to exit and faults.
//
// Some damaged PDBs end the program by design: an assertion or a container's range check aborts,
// std::out_of_range propagates. run_expecting_exit() treats these as expected, so that fuzzing
// continues. Everything else ends the process: a sanitizer report, an undocumented assertion,
// another exception or signal, exit(), or a failed require() of the target.
// Texts, SYMB images and PEs have no documented exits except for two assertions about unwind data,
// so their targets do not use run_expecting_exit().

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "base/text_buffer.h"
#include "fuzz/target.h"

namespace fuzzing {

constexpr size_t kMebibyte = size_t{1} << 20;

enum class Outcome {
  kReturned,
  kThrew,    // pdb_exception or std::out_of_range
  kAborted,  // live objects are not destroyed; their mappings are removed before the next run
};

// Runs `conversion` and returns how it ended. Must not be nested.
Outcome run_expecting_exit(const std::function<void()>& conversion);

// Number of runs aborted so far. If it is not 0, leaks are no longer reported.
size_t aborted_runs();

// Runs `call` and requires that it takes at most `seconds` of this thread's time and `bytes` of
// heap. The time limit is multiplied by 5, because tests run in parallel, and by 100 in builds with
// a sanitizer.
void bounded(const char* what, double seconds, size_t bytes, const std::function<void()>& call);

// bounded() with the limits of a conversion of `input_bytes`. `convert` returns the size of its
// output, which is limited too.
void bounded_conversion(size_t input_bytes, const std::function<size_t()>& convert);

// run_expecting_exit() with the limits of a conversion, whose result is `output`.
Outcome run_limited(size_t input_bytes, const symforge_internal::TextBuffer& output,
                    const std::function<void()>& conversion);

// A condition that a target requires. If false, prints it and ends the process as a fault.
void require(bool condition, const char* what);

}  // namespace fuzzing
