// The x64 unwind data of a PE image: the operations of a function's prolog, as a list of 16-bit
// slots, and the frame that they build.
//
//   uint8  version (3 bits), flags (5 bits)
//   uint8  bytes of prolog
//   uint8  number of slots
//   uint8  frame register (4 bits), frame offset in units of 16 bytes (4 bits)
//   slots, in reverse order of the prolog; an operation takes one to three of them
//   if the chained flag is set: padding to an even number of slots, then the entry of another
//     function whose prolog runs before this one
//
// Published as "x64 exception handling" in Microsoft's documentation of its compilers.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

#include "base/little_endian.h"

namespace symforge_internal {

enum UnwindOperationCodes : uint8_t {
  UWOP_PUSH_NONVOL = 0,
  UWOP_ALLOC_LARGE = 1,
  UWOP_ALLOC_SMALL = 2,
  UWOP_SET_FPREG = 3,
  UWOP_SAVE_NONVOL = 4,
  UWOP_SAVE_NONVOL_FAR = 5,
  UWOP_SAVE_XMM = 6,
  UWOP_SAVE_XMM_FAR = 7,
  UWOP_SAVE_XMM128 = 8,
  UWOP_SAVE_XMM128_FAR = 9,
  UWOP_PUSH_MACHFRAME = 10,
};

// A slot: an operation, or a number that belongs to the preceding operation.
struct UnwindCode {
  le_uint16 frame_offset;  // the slot as a number

  uint8_t unwind_operation_code() const { return frame_offset >> 8 & 0xF; }
  uint8_t operation_info() const { return static_cast<uint8_t>(frame_offset >> 12); }
};
static_assert(sizeof(UnwindCode) == 2 && alignof(UnwindCode) == 1);

struct UnwindInfo {
  static constexpr uint8_t kChained = 0x20;  // of version_and_flags

  uint8_t version_and_flags;
  uint8_t size_of_prolog;
  uint8_t count_of_codes;
  uint8_t frame;

  bool chained() const { return (version_and_flags & kChained) != 0; }
  uint8_t frame_register() const { return frame & 0xF; }
  int32_t frame_offset() const { return frame >> 4; }  // in units of 16 bytes
  // Bytes of head and slots.
  size_t size() const { return sizeof(*this) + count_of_codes * sizeof(UnwindCode); }
  // Bytes from the start to the function entry at the end of a chained info.
  size_t chainOffset() const {
    return sizeof(*this) + ((count_of_codes + 1U) & 0x1FE) * sizeof(UnwindCode);
  }
};
static_assert(sizeof(UnwindInfo) == 4);

// Registers in the numbering of operation_info.
enum UnwindRegister : uint8_t {
  kRbx = 3,
  kRsp = 4,
  kRbp = 5,
  kRsi = 6,
  kRdi = 7,
  kR12 = 12,
  kR13 = 13,
  kR14 = 14,
  kR15 = 15,
};

// Whether a callee can overwrite the register, so that it needs no rule.
constexpr bool isVolatile(uint8_t reg) {
  constexpr uint16_t kVolatile = 0x0F07;  // rax rcx rdx r8 r9 r10 r11
  return (kVolatile >> reg & 1) != 0;
}

// Where each saved register is stored, in bytes above the stack pointer at the end of the prolog.
class SavedRegisters {
 public:
  bool has(uint8_t reg) const { return (m_present >> reg & 1) != 0; }
  int32_t operator[](uint8_t reg) const { return m_offsets[reg]; }

  // Like a map's insert: `second` is false when the register has a place, which is kept.
  std::pair<uint8_t, bool> insert(uint8_t reg, int32_t offset) {
    if (has(reg)) return {reg, false};
    m_present = static_cast<uint16_t>(m_present | 1U << reg);
    m_offsets[reg] = offset;
    return {reg, true};
  }
  void erase(uint8_t reg) { m_present = static_cast<uint16_t>(m_present & ~(1U << reg)); }

 private:
  uint16_t m_present = 0;  // a bit a register
  std::array<int32_t, 16> m_offsets{};
};

// The frame at the end of a function's prolog, accumulated over the infos of a chain. Sums are 32
// bits wide and wrap.
struct UnwindFrame {
  static constexpr int32_t kNoFramePointer = std::numeric_limits<int32_t>::max();

  int32_t stack_size = 0;               // bytes between the stack pointer and the return address
  int32_t rip_offset = 8;               // bytes from the return address to the top of the frame
  int32_t fp_offset = kNoFramePointer;  // stack_size where the frame register was set
  SavedRegisters saved;

  // Adds the operations of one info, whose slots must follow it. False if walking the slots would
  // never end. A register that is pushed twice fails an assertion.
  bool add(const UnwindInfo& info);

 private:
  void push(uint8_t reg);
  void save(uint8_t reg, uint32_t offset);
  unsigned apply(const UnwindCode* code, unsigned slotsLeft);
};

}  // namespace symforge_internal
