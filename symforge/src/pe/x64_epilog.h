// The instructions of an x64 epilog, as the ABI allows them:
//
//   add rsp, N          or lea rsp, [FRAME_REGISTER + N], or mov rsp, FRAME_REGISTER; or none
//   pop REGISTER        any number
//   ret                 or a jump to another function
//
// Version 2 unwind data list where epilogs are, but not what they consist of. The code is read and
// compared with what the prolog did.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "symforge/src/pe/cfi_rows.h"
#include "symforge/src/pe/x64_frame.h"

namespace symforge_internal {

class X64Epilog {
 public:
  // Reads the epilog at the begin of `code`. False when the instructions are others, do not take
  // back exactly what `body`, the frame after the prolog, has built, or when the last of them is
  // not the one that `size`, the epilog's size by the unwind data, ends in or with.
  bool read(std::span<const uint8_t> code, uint32_t size, const X64Frame& body);

  // Bytes of all its instructions. Valid after read() returned true, as all below.
  uint32_t size() const { return size_; }

  size_t popCount() const { return pop_count_; }

  // The rows of an epilog at `address`: after each instruction, and the body's rules following it.
  void writeRows(uint32_t address, const X64Frame& body, CfiWriter& cfi) const;

 private:
  // Far more than there are registers; volatile ones may be popped to free stack.
  static constexpr size_t kMostPops = 32;

  struct Pop {
    uint8_t reg;
    uint8_t size;  // bytes of the instruction
  };

  std::span<const Pop> pops() const { return {pops_.data(), pop_count_}; }
  // Bytes from the stack pointer to the CFA once the stack is freed up to the pushed registers.
  int64_t depthBeforePops() const { return 8 * static_cast<int64_t>(pop_count_ + 1); }

  void readRelease(std::span<const uint8_t> code, const X64Frame& body);
  void readFrameRegister(std::span<const uint8_t> code, const CfiRules& body);
  void release(size_t size, int64_t depth);
  bool readPops(std::span<const uint8_t> code);
  bool matches(const X64Frame& body) const;

  std::array<Pop, kMostPops> pops_{};
  size_t pop_count_ = 0;
  uint32_t release_size_ = 0;   // bytes of the first instruction when it frees the stack, or 0
  int64_t released_depth_ = 0;  // bytes from the stack pointer to the CFA after it
  uint32_t size_ = 0;
};

}  // namespace symforge_internal
