// The unwind data of an x64 function as a list of operations, and the frame that they build.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "symforge/src/pe/cfi_rules.h"
#include "symforge/src/pe/unwind_codes.h"

namespace symforge_internal {

constexpr int64_t kX64Word = 8;  // bytes of a register

// One instruction of a prolog.
struct X64Operation {
  uint8_t prolog_offset = 0;  // bytes from the start of the code to the instruction's end
  uint8_t code = 0;           // UnwindOperationCodes
  uint8_t info = 0;
  uint32_t bytes = 0;  // size of an allocation, place of a saved register
};

// One UNWIND_INFO record of version 1 or 2, decoded.
class X64Prolog {
 public:
  static constexpr size_t kMostSlots = 255;

  enum class Status : uint8_t { kOk, kUnknownVersion, kDamaged };

  // `info` and its slots must be in the file. Use the object only after kOk.
  Status decode(const UnwindInfo& info);

  // In the order of execution. prolog_offset does not descend: a smaller one, which the format
  // excludes, is replaced by its predecessor's. Operations past the prolog's size take effect at
  // its end.
  std::span<const X64Operation> operations() const {
    return {operations_.data() + first_, kMostSlots - first_};
  }
  uint8_t size() const { return size_; }  // bytes of code
  uint8_t frameRegister() const { return frame_register_; }
  uint32_t frameOffset() const { return frame_offset_; }  // bytes

  // The epilogs that a version 2 record lists: their size in bytes, and for each the distance
  // from its start to the end of the code.
  uint32_t epilogSize() const { return epilog_size_; }
  std::span<const uint16_t> epilogs() const { return {epilogs_.data(), epilog_count_}; }

 private:
  size_t decodeEpilogs(std::span<const UnwindCode> slots);
  bool decodeOperations(std::span<const UnwindCode> slots);
  void limitOffsets();

  std::array<X64Operation, kMostSlots> operations_{};  // filled from the back
  size_t first_ = kMostSlots;
  std::array<uint16_t, kMostSlots> epilogs_{};
  size_t epilog_count_ = 0;
  uint32_t epilog_size_ = 0;
  uint32_t frame_offset_ = 0;
  uint8_t frame_register_ = 0;
  uint8_t size_ = 0;
};

// The frame of a function while its prologs are applied, as rules for the caller's values.
class X64Frame {
 public:
  // At the function's first instruction: the return address is on top of the stack.
  X64Frame();

  const CfiRules& rules() const { return rules_; }
  int64_t depth() const { return depth_; }  // bytes from the stack pointer to the CFA
  bool hasFrameRegister() const { return frame_register_depth_ != 0; }
  bool hasMachineFrame() const { return machine_frame_; }
  // A bit for each nonvolatile register that was saved by a push.
  uint32_t pushedMask() const { return pushed_; }

  // Must precede the operations of each prolog: places of saved registers refer to the stack
  // pointer after all of a prolog's allocations, or where it set the frame register.
  void begin(const X64Prolog& prolog);

  // Applies the next operation of the prolog. False for one that is invalid at its place; the frame
  // is unknown from there on.
  bool apply(const X64Prolog& prolog, const X64Operation& operation);

  // begin() and all operations.
  bool applyAll(const X64Prolog& prolog);

 private:
  void push(uint8_t reg);
  void save(uint8_t reg, int64_t distance);
  void grow(int64_t bytes);
  bool setFrameRegister(const X64Prolog& prolog);
  bool pushMachineFrame(uint8_t info);

  CfiRules rules_;
  int64_t depth_;
  int64_t save_base_ = 0;             // depth to which places of saved registers refer
  int64_t frame_register_depth_ = 0;  // depth when the frame register was set, or 0
  uint32_t pushed_ = 0;
  bool machine_frame_ = false;
};

}  // namespace symforge_internal
