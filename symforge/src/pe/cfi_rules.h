// CfiRules: how to get from a frame to its caller's at one address of the code.
//
// The canonical frame address (CFA) is the value of the stack pointer in the caller's frame. It is
// a register plus an offset; everything that the function saved is at a fixed distance from it.

#pragma once

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>

namespace symforge_internal {

// A value type without memory of its own. Registers are numbers below kRegisters, given by the
// machine's table of names (CfiMachine). Offsets and distances are in bytes; distances count from
// the CFA downwards and can be negative: a function may save registers in its caller's frame.
class CfiRules {
 public:
  static constexpr size_t kRegisters = 32;

  void setCfa(uint8_t reg, int64_t offset) {
    assert(reg < kRegisters);
    cfa_register_ = reg;
    cfa_offset_ = offset;
  }
  uint8_t cfaRegister() const { return cfa_register_; }
  int64_t cfaOffset() const { return cfa_offset_; }

  // The return address is in memory, or in a register.
  void setReturnAddressBelowCfa(int64_t distance) {
    return_register_ = kInMemory;
    return_distance_ = distance;
  }
  void setReturnAddressRegister(uint8_t reg) {
    assert(reg < kRegisters);
    return_register_ = reg;
    return_distance_ = 0;
  }
  bool isReturnAddressInMemory() const { return return_register_ == kInMemory; }
  uint8_t returnAddressRegister() const { return return_register_; }
  int64_t returnAddressDistance() const { return return_distance_; }

  // The caller's value of a register is in memory. An earlier place is replaced.
  void save(uint8_t reg, int64_t distance) {
    assert(reg < kRegisters);
    saved_ |= uint32_t{1} << reg;
    distances_[reg] = distance;
  }
  // The register itself holds the caller's value, as it does when nothing was said about it.
  void restore(uint8_t reg) {
    assert(reg < kRegisters);
    saved_ &= ~(uint32_t{1} << reg);
    distances_[reg] = 0;
  }
  bool isSaved(uint8_t reg) const { return (saved_ >> reg & 1) != 0; }
  int64_t savedDistance(uint8_t reg) const { return distances_[reg]; }

  // A bit for each saved register.
  uint32_t savedMask() const { return saved_; }

  bool operator==(const CfiRules&) const = default;

 private:
  static constexpr uint8_t kInMemory = 0xFF;

  uint8_t cfa_register_ = 0;
  uint8_t return_register_ = kInMemory;
  uint32_t saved_ = 0;
  int64_t cfa_offset_ = 0;
  int64_t return_distance_ = 0;
  std::array<int64_t, kRegisters> distances_{};  // 0 for registers that are not saved
};

}  // namespace symforge_internal
