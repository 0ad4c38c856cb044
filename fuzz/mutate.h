// The two functions of a fuzzing engine's interface that deal in mutations.

#pragma once

#include <cstddef>
#include <cstdint>

// The engine's own mutation, in place; returns the new size. The replayer has a simple one.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

// A target's mutation, for those that have one.
extern "C" __attribute__((weak)) size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size,
                                                                size_t max_size, unsigned seed);
