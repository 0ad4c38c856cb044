// CfiRules: how to recover the caller's frame at one address of the code.
//
// The canonical frame address (CFA) is the value of the stack pointer in the caller's frame. It is
// a register plus an offset; everything that the function saved is at a fixed distance from it.

#pragma once

#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>

namespace symforge_internal {

// A value type without memory of its own. Registers are numbers below kRegisters, defined by the
// machine's table of names (CfiMachine). Offsets and distances are in bytes; distances count from
// the CFA downwards and can be negative: a function may save registers in its caller's frame.
class CfiRules {
 public:
  static constexpr size_t kRegisters = 32;

  CfiRules() = default;
  CfiRules(const CfiRules& other) { *this = other; }
  ~CfiRules() = default;
  // Copies the places of saved registers only: most rules have few, and are copied twice.
  CfiRules& operator=(const CfiRules& other) {
    cfa_register_ = other.cfa_register_;
    return_register_ = other.return_register_;
    saved_ = other.saved_;
    cfa_offset_ = other.cfa_offset_;
    return_distance_ = other.return_distance_;
    for (uint32_t left = saved_; left != 0; left &= left - 1) {
      const auto reg = static_cast<unsigned>(std::countr_zero(left));
      distances_[reg] = other.distances_[reg];
    }
    return *this;
  }

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
  // The register itself has the caller's value, which is also the initial state.
  void restore(uint8_t reg) {
    assert(reg < kRegisters);
    saved_ &= ~(uint32_t{1} << reg);
  }
  bool isSaved(uint8_t reg) const { return (saved_ >> reg & 1) != 0; }
  // 0 for a register that is not saved.
  int64_t savedDistance(uint8_t reg) const { return isSaved(reg) ? distances_[reg] : 0; }

  // A bit for each saved register.
  uint32_t savedMask() const { return saved_; }

  bool operator==(const CfiRules& other) const {
    bool same = cfa_register_ == other.cfa_register_ &&
                return_register_ == other.return_register_ && saved_ == other.saved_ &&
                cfa_offset_ == other.cfa_offset_ && return_distance_ == other.return_distance_;
    for (uint32_t left = saved_; same && left != 0; left &= left - 1) {
      const auto reg = static_cast<unsigned>(std::countr_zero(left));
      same = distances_[reg] == other.distances_[reg];
    }
    return same;
  }

 private:
  static constexpr uint8_t kInMemory = 0xFF;

  uint8_t cfa_register_ = 0;
  uint8_t return_register_ = kInMemory;
  uint32_t saved_ = 0;
  int64_t cfa_offset_ = 0;
  int64_t return_distance_ = 0;
  std::array<int64_t, kRegisters> distances_;  // only those of saved registers are set
};

}  // namespace symforge_internal
