// The definition of fuzz targets. With SYMFORGE_FUZZERS each one is a libFuzzer program; otherwise
// all of them are in one program, the replayer.

#pragma once

#include <cstddef>
#include <cstdint>

// The engine's own mutation, in place. Returns the new size. The replayer has a simple
// implementation.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

// The head of a target: FUZZ_TARGET(NAME)(const uint8_t* data, size_t size) { ...; return 0; }
// The head of its own mutation, which is optional:
// FUZZ_MUTATOR(NAME)(uint8_t* data, size_t size, size_t max_size, unsigned seed) { ... }
#ifdef SYMFORGE_FUZZERS

#define FUZZ_TARGET(name) extern "C" int LLVMFuzzerTestOneInput
#define FUZZ_MUTATOR(name) extern "C" size_t LLVMFuzzerCustomMutator

#else

#define FUZZ_TARGET(name)                                                                 \
  static int run_##name(const uint8_t* data, size_t size);                                \
  [[maybe_unused]] static const bool has_##name = fuzzing::add_target(#name, run_##name); \
  static int run_##name
#define FUZZ_MUTATOR(name)                                                                 \
  static size_t mutate_##name(uint8_t* data, size_t size, size_t max_size, unsigned seed); \
  [[maybe_unused]] static const bool has_mutator_of_##name =                               \
      fuzzing::add_mutator(#name, mutate_##name);                                          \
  static size_t mutate_##name

namespace fuzzing {

using Run = int (*)(const uint8_t* data, size_t size);
using Mutate = size_t (*)(uint8_t* data, size_t size, size_t max_size, unsigned seed);

// Add to the targets of the replayer, and return true.
bool add_target(const char* name, Run run);
bool add_mutator(const char* name, Mutate mutate);

}  // namespace fuzzing

#endif
