#include "symforge/src/pe/x64_frame.h"

#include <algorithm>

namespace symforge_internal {

namespace {

// Operations of version 2 only. The first slot holds the size of all epilogs, and a flag when one
// ends with the function; each further slot the distance of an epilog from the function's end.
constexpr uint8_t kEpilog = 6;
constexpr uint8_t kEpilogAtEnd = 1;

// The processor pushes SS, RSP, RFLAGS, CS and RIP on an interrupt, for some also an error code.
constexpr int64_t kInterruptFrame = 5 * kX64Word;
constexpr int64_t kOldStackPointer = 2 * kX64Word;  // from the top of the machine frame

// How many slots an operation takes, or 0 for one that no version defines.
size_t slotsOf(uint8_t code, uint8_t info) {
  switch (code) {
    case UWOP_PUSH_NONVOL:
    case UWOP_ALLOC_SMALL:
    case UWOP_SET_FPREG:
      return 1;
    case UWOP_PUSH_MACHFRAME:
      return info <= 1 ? 1 : 0;
    case UWOP_ALLOC_LARGE:
      return info <= 1 ? 2 + size_t{info} : 0;
    case UWOP_SAVE_NONVOL:
    case UWOP_SAVE_XMM128:
      return 2;
    case UWOP_SAVE_NONVOL_FAR:
    case UWOP_SAVE_XMM128_FAR:
      return 3;
    default:
      return 0;
  }
}

// The operand of an operation, in bytes. A single slot has it in units of 8 bytes.
uint32_t operandOf(std::span<const UnwindCode> slots) {
  if (slots.size() == 2) return uint32_t{slots[1].frame_offset} * 8;
  if (slots.size() == 3) {
    return uint32_t{slots[1].frame_offset} | uint32_t{slots[2].frame_offset} << 16;
  }
  return (slots[0].operation_info() + 1U) * 8;  // ALLOC_SMALL
}

// By how much an operation moves the stack pointer.
int64_t stackBytes(const X64Operation& operation) {
  switch (operation.code) {
    case UWOP_PUSH_NONVOL:
      return kX64Word;
    case UWOP_ALLOC_SMALL:
    case UWOP_ALLOC_LARGE:
      return operation.bytes;
    case UWOP_PUSH_MACHFRAME:  // the return address at entry is part of it
      return kInterruptFrame + operation.info * kX64Word - kX64Word;
    default:
      return 0;
  }
}

}  // namespace

X64Prolog::Status X64Prolog::decode(const UnwindInfo& info) {
  const unsigned version = info.version_and_flags & 7;
  if (version != 1 && version != 2) return Status::kUnknownVersion;
  const auto* codes = reinterpret_cast<const UnwindCode*>(&info + 1);
  std::span<const UnwindCode> slots(codes, info.count_of_codes);
  first_ = kMostSlots;
  epilog_count_ = 0;
  epilog_size_ = 0;
  size_ = info.size_of_prolog;
  frame_register_ = info.frame_register();
  frame_offset_ = static_cast<uint32_t>(info.frame_offset()) * 16;
  if (version == 2) slots = slots.subspan(decodeEpilogs(slots));
  if (!decodeOperations(slots)) return Status::kDamaged;
  limitOffsets();
  return Status::kOk;
}

// Returns how many of the first slots describe epilogs.
size_t X64Prolog::decodeEpilogs(std::span<const UnwindCode> slots) {
  size_t used = 0;
  for (; used < slots.size() && slots[used].unwind_operation_code() == kEpilog; ++used) {
    const unsigned low = slots[used].frame_offset & 0xFF;
    const unsigned info = slots[used].operation_info();
    if (used == 0) {
      epilog_size_ = low;
      if ((info & kEpilogAtEnd) != 0) epilogs_[epilog_count_++] = static_cast<uint16_t>(low);
    } else if (const unsigned distance = low | info << 8; distance != 0) {  // 0 is padding
      epilogs_[epilog_count_++] = static_cast<uint16_t>(distance);
    }
  }
  // They come in pairs. A slot of zeros can complete the last pair.
  if (used % 2 != 0 && used < slots.size() && slots[used].frame_offset == 0) ++used;
  return used;
}

// The slots describe the prolog from its end to its start.
bool X64Prolog::decodeOperations(std::span<const UnwindCode> slots) {
  while (!slots.empty()) {
    X64Operation operation;
    operation.prolog_offset = static_cast<uint8_t>(slots[0].frame_offset & 0xFF);
    operation.code = slots[0].unwind_operation_code();
    operation.info = slots[0].operation_info();
    const size_t used = slotsOf(operation.code, operation.info);
    if (used == 0 || used > slots.size()) return false;
    operation.bytes = operandOf(slots.first(used));
    operations_[--first_] = operation;
    slots = slots.subspan(used);
  }
  return true;
}

void X64Prolog::limitOffsets() {
  uint8_t before = 0;
  for (size_t i = first_; i < kMostSlots; ++i) {
    uint8_t& offset = operations_[i].prolog_offset;
    offset = std::max(before, std::min(offset, size_));
    before = offset;
  }
}

X64Frame::X64Frame() : depth_(kX64Word) {
  rules_.setCfa(kRsp, kX64Word);
  rules_.setReturnAddressBelowCfa(kX64Word);
}

void X64Frame::begin(const X64Prolog& prolog) {
  save_base_ = depth_;
  for (const X64Operation& operation : prolog.operations()) {
    if (operation.code == UWOP_SET_FPREG) return;
    save_base_ += stackBytes(operation);
  }
  if (hasFrameRegister()) save_base_ = frame_register_depth_;  // set by an earlier prolog
}

bool X64Frame::apply(const X64Prolog& prolog, const X64Operation& operation) {
  switch (operation.code) {
    case UWOP_PUSH_NONVOL:
      push(operation.info);
      return true;
    case UWOP_ALLOC_SMALL:
    case UWOP_ALLOC_LARGE:
      grow(operation.bytes);
      return true;
    case UWOP_SET_FPREG:
      return setFrameRegister(prolog);
    case UWOP_SAVE_NONVOL:
    case UWOP_SAVE_NONVOL_FAR:
      save(operation.info, save_base_ - int64_t{operation.bytes});
      return true;
    case UWOP_PUSH_MACHFRAME:
      return pushMachineFrame(operation.info);
    default:  // XMM registers have no rules
      return true;
  }
}

bool X64Frame::applyAll(const X64Prolog& prolog) {
  begin(prolog);
  for (const X64Operation& operation : prolog.operations()) {
    if (!apply(prolog, operation)) return false;
  }
  return true;
}

void X64Frame::push(uint8_t reg) {
  grow(kX64Word);
  if (isVolatile(reg) || reg == kRsp || rules_.isSaved(reg)) return;
  save(reg, depth_);
  pushed_ |= uint32_t{1} << reg;
}

// The first place where a register was saved has the caller's value.
void X64Frame::save(uint8_t reg, int64_t distance) {
  if (!isVolatile(reg) && reg != kRsp && !rules_.isSaved(reg)) rules_.save(reg, distance);
}

void X64Frame::grow(int64_t bytes) {
  depth_ += bytes;
  if (!hasFrameRegister()) rules_.setCfa(kRsp, depth_);
}

bool X64Frame::setFrameRegister(const X64Prolog& prolog) {
  const uint8_t reg = prolog.frameRegister();
  if (reg == 0 || reg == kRsp) return false;
  frame_register_depth_ = depth_;
  rules_.setCfa(reg, depth_ - int64_t{prolog.frameOffset()});
  return true;
}

// Only as the very first operation, in place of the call that starts other functions. The
// caller's stack pointer is not the top of the frame but stored in it.
bool X64Frame::pushMachineFrame(uint8_t info) {
  if (depth_ != kX64Word || hasFrameRegister() || rules_.savedMask() != 0) return false;
  depth_ = kInterruptFrame + info * kX64Word;
  machine_frame_ = true;
  rules_.setCfa(kRsp, depth_);
  rules_.setReturnAddressBelowCfa(kInterruptFrame);
  rules_.save(kRsp, kOldStackPointer);
  return true;
}

}  // namespace symforge_internal
