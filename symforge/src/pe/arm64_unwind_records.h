// The records of ARM64 unwind data in a PE image (.pdata and .xdata), published as "ARM64 exception
// handling" in Microsoft's documentation of its compilers. Lengths and offsets of code are in
// instructions, which take 4 bytes each.

#pragma once

#include <cstddef>
#include <cstdint>

#include "base/little_endian.h"

namespace symforge_internal {

inline constexpr uint32_t kArm64InstructionBytes = 4;

// An entry of the exception directory. The second word is a packed description, or the RVA of an
// .xdata record.
struct Arm64RuntimeFunction {
  enum Flag : uint32_t {
    kUnpacked = 0,
    kPackedFunction = 1,  // one prolog at the begin, one epilog at the end
    kPackedFragment = 2,  // neither
    kReserved = 3,
  };

  le_uint32 BeginAddress;  // RVA
  le_uint32 UnwindData;

  uint32_t flag() const { return UnwindData & 3; }
};
static_assert(sizeof(Arm64RuntimeFunction) == 8 && alignof(Arm64RuntimeFunction) == 1);
static_assert(offsetof(Arm64RuntimeFunction, UnwindData) == 4);

// The second word of a packed entry.
struct Arm64PackedUnwind {
  uint32_t word = 0;

  uint32_t length() const { return word >> 2 & 0x7FF; }
  uint32_t regF() const { return word >> 13 & 7; }   // n > 0: n + 1 registers from d8 on
  uint32_t regI() const { return word >> 16 & 15; }  // registers from x19 on
  bool homesParameters() const { return (word >> 20 & 1) != 0; }
  uint32_t cr() const { return word >> 21 & 3; }
  uint32_t frameBytes() const { return (word >> 23) * 16; }
};

// The first word of an .xdata record. When both counts are 0, an Arm64XdataExtension follows. Then
// the epilog scopes, the code words, and the RVA of a handler with its data.
struct Arm64XdataHeader {
  le_uint32 word;

  uint32_t length() const { return word & 0x3FFFF; }
  uint32_t version() const { return word >> 18 & 3; }
  // One epilog, at the function's end, and no scopes. epilogCount() is the index of its codes.
  bool hasSingleEpilog() const { return (word >> 21 & 1) != 0; }
  uint32_t epilogCount() const { return word >> 22 & 0x1F; }
  uint32_t codeWords() const { return word >> 27; }
  bool isExtended() const { return word >> 22 == 0; }
};
static_assert(sizeof(Arm64XdataHeader) == 4 && alignof(Arm64XdataHeader) == 1);

struct Arm64XdataExtension {
  le_uint32 word;

  uint32_t epilogCount() const { return word & 0xFFFF; }
  uint32_t codeWords() const { return word >> 16 & 0xFF; }
};
static_assert(sizeof(Arm64XdataExtension) == 4 && alignof(Arm64XdataExtension) == 1);

struct Arm64EpilogScope {
  le_uint32 word;

  uint32_t start() const { return word & 0x3FFFF; }      // from the function's begin
  uint32_t reserved() const { return word >> 18 & 15; }  // 0 in all records known today
  uint32_t codeIndex() const { return word >> 22; }      // bytes
};
static_assert(sizeof(Arm64EpilogScope) == 4 && alignof(Arm64EpilogScope) == 1);

}  // namespace symforge_internal
