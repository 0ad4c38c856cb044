// ARM64 unwind codes, decoded. Each code describes one instruction of a prolog, and the instruction
// of an epilog that undoes it. Codes are stored in the order in which an epilog runs.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace symforge_internal {

// The registers that a function has to preserve start at x19 and d8.
inline constexpr uint8_t kFirstSavedX = 19;
inline constexpr uint8_t kFirstSavedD = 8;
inline constexpr uint8_t kFramePointer = 29;
inline constexpr uint8_t kLinkRegister = 30;

enum class Arm64Status : uint8_t {
  kOk,
  kMalformed,    // violates the format
  kUnsupported,  // custom stack layouts, reserved codes, sizes that depend on the vector length
};

// One instruction of a prolog. Numbers are in bytes.
struct Arm64Effect {
  enum class Kind : uint8_t {
    kNop,        // no influence on the frame
    kSign,       // the return address is signed
    kAllocate,   // sp -= allocated
    kSave,       // sp -= allocated, then the registers are stored at sp + offset
    kSetFrame,   // x29 = sp + offset
    kSaveNext,   // inside the decoder only
    kEnd,        // likewise
    kEndOfPart,  // likewise
  };
  enum class File : uint8_t { kX, kD, kQ };
  static constexpr uint8_t kNoRegister = 0xFF;

  Kind kind = Kind::kNop;
  File file = File::kX;
  uint8_t first = kNoRegister;
  uint8_t second = kNoRegister;  // stored after the first one
  uint32_t offset = 0;
  uint32_t allocated = 0;

  uint32_t registerBytes() const { return file == File::kQ ? 16 : 8; }

  bool operator==(const Arm64Effect&) const = default;
};

// The codes from one index on. A sequence that ends in `end` has as many effects as instructions.
// After an `end_c`, the effects of the parts of the function that ran earlier follow: they have no
// instructions here.
struct Arm64Sequence {
  std::vector<Arm64Effect> effects;
  size_t instructions = 0;
  bool has_end_c = false;

  // Instructions of an epilog: `end` implies a return or a jump, `end_c` implies none.
  size_t epilogInstructions() const { return instructions + (has_end_c ? 0 : 1); }

  void clear() {
    effects.clear();
    instructions = 0;
    has_end_c = false;
  }
};

// Decodes from the code at byte `index` to the `end` code. What follows that is not read. `out` is
// replaced, and is incomplete unless the result is kOk. Throws std::bad_alloc.
Arm64Status decodeArm64Codes(std::span<const uint8_t> codes, size_t index, Arm64Sequence& out);

}  // namespace symforge_internal
