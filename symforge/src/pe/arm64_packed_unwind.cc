// The canonical prolog, in its order:
//
//   CR 2     pacibsp
//   RegI     stp x19,x20,[sp,#-saved]!; stp x21,x22,[sp,#16] ...
//   CR 1     str lr, after the integer registers; paired with the last of an odd number
//   RegF     stp d8,d9 ...
//   H        four stp of x0 to x7
//   CR 2, 3  stp x29,lr,[sp,#-locals]!; mov x29,sp            locals up to 512 bytes
//            sub sp,sp,#locals; stp x29,lr,[sp]; mov x29,sp   above, in two steps from 4080 on
//   CR 0, 1  sub sp,sp,#locals                                likewise
//
// The first store of all allocates the save area. The epilog mirrors it without the four stores of
// parameters and without setting x29.

#include "symforge/src/pe/arm64_packed_unwind.h"

#include <algorithm>

namespace symforge_internal {

namespace {

using Kind = Arm64Effect::Kind;
using File = Arm64Effect::File;

constexpr uint32_t kMostRegI = 10;  // up to x28
constexpr uint32_t kHomedPairs = 4;
constexpr uint32_t kLargestPreIndexed = 512;
constexpr uint32_t kLargestSub = 4080;

enum Cr : uint32_t { kUnchained = 0, kLinkOnly = 1, kChainedSigned = 2, kChained = 3 };

struct Areas {
  uint32_t integers;  // bytes, with lr if that is saved with them
  uint32_t floats;
  uint32_t saved;  // the whole save area
  uint32_t locals;
};

class PackedProlog {
 public:
  PackedProlog(Arm64PackedUnwind packed, const Areas& areas, std::vector<Arm64Effect>& out)
      : packed_(packed), areas_(areas), out_(out) {}

  void build() {
    if (packed_.cr() == kChainedSigned) add(Kind::kSign);
    saveIntegers();
    saveFloats();
    if (packed_.homesParameters()) homeParameters();
    if (packed_.cr() == kChainedSigned || packed_.cr() == kChained) {
      chainFrame();
    } else {
      allocateLocals();
    }
  }

 private:
  Arm64Effect& add(Kind kind) {
    out_.emplace_back().kind = kind;
    return out_.back();
  }

  // Stores one or two registers at the next place of the save area.
  void save(File file, uint8_t first, uint8_t second = Arm64Effect::kNoRegister) {
    Arm64Effect& effect = add(Kind::kSave);
    effect.file = file;
    effect.first = first;
    effect.second = second;
    effect.offset = used_;
    if (used_ == 0) effect.allocated = areas_.saved;
    used_ += second == Arm64Effect::kNoRegister ? 8 : 16;
  }

  void saveIntegers() {
    const uint32_t count = packed_.regI();
    const bool link = packed_.cr() == kLinkOnly;
    const auto last = static_cast<uint8_t>(kFirstSavedX + count - 1);
    for (uint32_t i = 0; i + 1 < count; i += 2) {
      const auto reg = static_cast<uint8_t>(kFirstSavedX + i);
      save(File::kX, reg, static_cast<uint8_t>(reg + 1));
    }
    if (count % 2 == 0) {
      if (link) save(File::kX, kLinkRegister);
    } else if (!link) {
      save(File::kX, last);
    } else if (count == 1) {
      // No code describes a pre-indexed store of x19 and lr: the area is allocated beforehand.
      add(Kind::kAllocate).allocated = areas_.saved;
      save(File::kX, last, kLinkRegister);
      out_.back().allocated = 0;
    } else {
      save(File::kX, last, kLinkRegister);
    }
  }

  void saveFloats() {
    const uint32_t count = areas_.floats / 8;
    for (uint32_t i = 0; i < count; i += 2) {
      const auto reg = static_cast<uint8_t>(kFirstSavedD + i);
      if (i + 1 < count) {
        save(File::kD, reg, static_cast<uint8_t>(reg + 1));
      } else {
        save(File::kD, reg);
      }
    }
  }

  void homeParameters() {
    if (used_ == 0) {
      add(Kind::kAllocate).allocated = areas_.saved;
    } else {
      add(Kind::kNop);
    }
    for (uint32_t i = 1; i < kHomedPairs; ++i) add(Kind::kNop);
  }

  void allocateLocals() {
    const uint32_t first = std::min(areas_.locals, kLargestSub);
    if (first != 0) add(Kind::kAllocate).allocated = first;
    if (areas_.locals > first) add(Kind::kAllocate).allocated = areas_.locals - first;
  }

  void chainFrame() {
    const bool pre_indexed = areas_.locals <= kLargestPreIndexed;
    if (!pre_indexed) allocateLocals();
    Arm64Effect& effect = add(Kind::kSave);
    effect.first = kFramePointer;
    effect.second = kLinkRegister;
    if (pre_indexed) effect.allocated = areas_.locals;
    add(Kind::kSetFrame);
  }

  Arm64PackedUnwind packed_;
  Areas areas_;
  std::vector<Arm64Effect>& out_;
  uint32_t used_ = 0;  // bytes of the save area
};

// False if the word is inconsistent.
bool measure(Arm64PackedUnwind packed, Areas& areas) {
  if (packed.regI() > kMostRegI) return false;
  areas.integers = packed.regI() * 8 + (packed.cr() == kLinkOnly ? 8 : 0);
  areas.floats = packed.regF() == 0 ? 0 : packed.regF() * 8 + 8;
  const uint32_t homed = packed.homesParameters() ? kHomedPairs * 16 : 0;
  areas.saved = (areas.integers + areas.floats + homed + 15) & ~15U;
  if (areas.saved > packed.frameBytes()) return false;
  areas.locals = packed.frameBytes() - areas.saved;
  const bool chained = packed.cr() == kChained || packed.cr() == kChainedSigned;
  return !chained || areas.locals >= 16;  // x29 and lr are saved there
}

}  // namespace

Arm64Status expandArm64Packed(Arm64PackedUnwind packed, bool is_fragment, Arm64Sequence& prolog,
                              Arm64Sequence& epilog) {
  prolog.clear();
  epilog.clear();
  Areas areas;
  if (!measure(packed, areas)) return Arm64Status::kMalformed;
  PackedProlog(packed, areas, prolog.effects).build();
  std::reverse(prolog.effects.begin(), prolog.effects.end());
  if (is_fragment) return Arm64Status::kOk;
  for (const Arm64Effect& effect : prolog.effects) {
    if (effect.kind == Kind::kNop || effect.kind == Kind::kSetFrame) continue;
    epilog.effects.push_back(effect);
  }
  prolog.instructions = prolog.effects.size();
  epilog.instructions = epilog.effects.size();
  return Arm64Status::kOk;
}

}  // namespace symforge_internal
