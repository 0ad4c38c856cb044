// The two functions of the fuzzing engine's interface that concern mutations.

#pragma once

#include <cstddef>
#include <cstdint>

// The engine's own mutation, in place. Returns the new size. The replayer has a simple
// implementation.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

// A target's custom mutation; optional.
extern "C" __attribute__((weak)) size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size,
                                                                size_t max_size, unsigned seed);
