#include "symforge/src/pe/arm64_frame.h"

#include <iterator>
#include <string_view>

namespace symforge_internal {

namespace {

// Numbers of registers in CfiRules: sp, x19 to x30, d8 to d15.
constexpr uint8_t kSp = 0;
constexpr uint8_t kX19 = 1;
constexpr uint8_t kX29 = kX19 + 10;
constexpr uint8_t kX30 = kX19 + 11;
constexpr uint8_t kD8 = kX30 + 1;

constexpr std::string_view kNames[] = {"sp",  "x19", "x20", "x21", "x22", "x23", "x24",
                                       "x25", "x26", "x27", "x28", "x29", "x30", "d8",
                                       "d9",  "d10", "d11", "d12", "d13", "d14", "d15"};
static_assert(std::size(kNames) == kD8 + 8 && std::size(kNames) <= CfiRules::kRegisters);

CfiRules rulesAtEntry() {
  CfiRules rules;
  rules.setCfa(kSp, 0);
  rules.setReturnAddressRegister(kX30);
  return rules;
}

}  // namespace

const CfiMachine& arm64Cfi() {
  static const CfiMachine machine{kNames, rulesAtEntry()};
  return machine;
}

void Arm64Frame::reset() {
  rules_ = rulesAtEntry();
  depth_ = 0;
  has_frame_pointer_ = false;
}

void Arm64Frame::add(const Arm64Effect& effect) {
  depth_ += effect.allocated;
  if (effect.kind == Arm64Effect::Kind::kSave) {
    const int64_t distance = depth_ - effect.offset;
    place(effect.file, effect.first, distance);
    if (effect.second != Arm64Effect::kNoRegister)
      place(effect.file, effect.second, distance - effect.registerBytes());
  } else if (effect.kind == Arm64Effect::Kind::kSetFrame) {
    has_frame_pointer_ = true;
    frame_offset_ = depth_ - effect.offset;
  }
  if (has_frame_pointer_) {
    rules_.setCfa(kX29, frame_offset_);
  } else {
    rules_.setCfa(kSp, depth_);
  }
}

// The first place of a register counts: it was saved there before it was used. Registers that a
// function may overwrite have no rules; of d8 to d15 a function keeps the low 8 bytes, also when it
// saves all 16.
void Arm64Frame::place(Arm64Effect::File file, uint8_t reg, int64_t distance) {
  if (file == Arm64Effect::File::kX) {
    if (reg < 19) return;
    const auto number = static_cast<uint8_t>(kX19 + (reg - 19));
    if (number == kX30) {
      if (!rules_.isReturnAddressInMemory()) rules_.setReturnAddressBelowCfa(distance);
      return;
    }
    if (number == kX29) has_frame_pointer_ = false;  // an epilog loads it from here
    if (!rules_.isSaved(number)) rules_.save(number, distance);
  } else if (reg >= 8 && reg < 16) {
    const auto number = static_cast<uint8_t>(kD8 + (reg - 8));
    if (!rules_.isSaved(number)) rules_.save(number, distance);
  }
}

}  // namespace symforge_internal
