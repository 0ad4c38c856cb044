#include "symforge/src/pe/unwind_codes.h"

#include <cassert>

namespace symforge_internal {

namespace {

// The size that is used for a machine frame, in bytes. It is more than the five words, six with an
// error code, that the processor pushes; existing symbol files have rules with these numbers.
constexpr uint32_t kMachineFrame = 80;
constexpr uint32_t kMachineFrameWithErrorCode = 88;

int32_t plus(int32_t sum, uint32_t bytes) {
  return static_cast<int32_t>(static_cast<uint32_t>(sum) + bytes);
}

// The number in the slots after an operation: one slot is in units of 8 bytes, two slots are in
// bytes.
uint32_t scaledNumber(const UnwindCode* code) { return uint32_t{code[1].frame_offset} * 8; }
uint32_t wideNumber(const UnwindCode* code) {
  return uint32_t{code[1].frame_offset} | uint32_t{code[2].frame_offset} << 16;
}

}  // namespace

// The index has 8 bits. Operations that extend past 255 slots wrap it, and the walk continues near
// the front. After so many wraps that each such start must have occurred twice, the walk is
// endless.
bool UnwindFrame::add(const UnwindInfo& info) {
  constexpr int kMostWraps = 4;
  const auto* codes = reinterpret_cast<const UnwindCode*>(&info + 1);
  int wraps = 0;
  for (uint8_t c = 0; c < info.count_of_codes;) {
    const unsigned next = c + apply(codes + c, info.count_of_codes - c);
    c = static_cast<uint8_t>(next);
    if (c != next && ++wraps > kMostWraps) return false;
  }
  return true;
}

// Applies the operation in `code`, one of `slotsLeft` slots, and returns the number of its slots.
// A truncated operation has no effect.
unsigned UnwindFrame::apply(const UnwindCode* code, unsigned slotsLeft) {
  const uint8_t info = code->operation_info();
  switch (code->unwind_operation_code()) {
    case UWOP_PUSH_NONVOL:
      push(info);
      return 1;
    case UWOP_ALLOC_LARGE:
      if (info == 0) {
        if (slotsLeft >= 2) stack_size = plus(stack_size, scaledNumber(code));
        return 2;
      }
      if (slotsLeft >= 3) stack_size = plus(stack_size, wideNumber(code));
      return 3;
    case UWOP_ALLOC_SMALL:
      stack_size = plus(stack_size, info * 8U + 8);
      return 1;
    case UWOP_SET_FPREG:
      fp_offset = stack_size;
      return 1;
    case UWOP_SAVE_NONVOL:
      if (slotsLeft >= 2) save(info, scaledNumber(code));
      return 2;
    case UWOP_SAVE_NONVOL_FAR:
      if (slotsLeft >= 3) save(info, wideNumber(code));
      return 3;
    case UWOP_SAVE_XMM128:
      return 2;
    case UWOP_SAVE_XMM128_FAR:
      return 3;
    case UWOP_PUSH_MACHFRAME:
      rip_offset = plus(rip_offset, kMachineFrame);
      stack_size = plus(stack_size, info == 0 ? kMachineFrame : kMachineFrameWithErrorCode);
      return 1;
    default:  // the old XMM saves count as one slot here
      return 1;
  }
}

void UnwindFrame::push(uint8_t reg) {
  if (!isVolatile(reg)) {
    const auto ok = saved.insert(reg, stack_size);
    assert(ok.second);
  }
  stack_size = plus(stack_size, 8);
}

void UnwindFrame::save(uint8_t reg, uint32_t offset) {
  if (isVolatile(reg)) return;
  saved.erase(reg);
  const auto ok = saved.insert(reg, static_cast<int32_t>(offset));
  assert(ok.second);
}

}  // namespace symforge_internal
