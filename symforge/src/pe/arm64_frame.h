// What ARM64 unwind codes amount to: the CFI rules at one instruction.

#pragma once

#include <cstdint>

#include "symforge/src/pe/arm64_unwind_codes.h"
#include "symforge/src/pe/cfi_rows.h"

namespace symforge_internal {

// Names of the registers in rules, and the rules at a function's entry.
const CfiMachine& arm64Cfi();

// Builds the rules from the caller's frame inwards: the last code of a sequence is added first.
// That is the order in which a prolog runs, and the opposite of an epilog's.
//
// Everything is placed by its distance from the canonical frame address, which the codes fix: the
// stack pointer moves by known sizes in prologs and epilogs. A function that moves it elsewhere has
// x29 for it.
class Arm64Frame {
 public:
  Arm64Frame() { reset(); }

  // Back to the rules at a function's entry.
  void reset();

  // After the instruction that `effect` describes.
  void add(const Arm64Effect& effect);

  const CfiRules& rules() const { return rules_; }

 private:
  void place(Arm64Effect::File file, uint8_t reg, int64_t distance);

  CfiRules rules_;
  int64_t depth_ = 0;  // bytes from the stack pointer up to the canonical frame address
  bool has_frame_pointer_ = false;
  int64_t frame_offset_ = 0;  // bytes from x29 up to the canonical frame address
};

}  // namespace symforge_internal
