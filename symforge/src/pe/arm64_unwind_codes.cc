#include "symforge/src/pe/arm64_unwind_codes.h"

#include <algorithm>
#include <iterator>

namespace symforge_internal {

namespace {

using Kind = Arm64Effect::Kind;
using File = Arm64Effect::File;

constexpr uint8_t kLastD = 31;

uint8_t registerFrom(uint32_t first, uint32_t number) {
  return static_cast<uint8_t>(first + number);
}

Arm64Effect plain(Kind kind) {
  Arm64Effect effect;
  effect.kind = kind;
  return effect;
}

Arm64Effect allocate(uint32_t bytes) {
  Arm64Effect effect = plain(Kind::kAllocate);
  effect.allocated = bytes;
  return effect;
}

Arm64Effect setFrame(uint32_t offset) {
  Arm64Effect effect = plain(Kind::kSetFrame);
  effect.offset = offset;
  return effect;
}

// One register, or with `pair` also the next one.
Arm64Effect save(File file, uint8_t reg, bool pair, uint32_t offset, uint32_t allocated = 0) {
  Arm64Effect effect = plain(Kind::kSave);
  effect.file = file;
  effect.first = reg;
  if (pair) effect.second = registerFrom(reg, 1);
  effect.offset = offset;
  effect.allocated = allocated;
  return effect;
}

// The operands of the codes. `code`: all bytes of one, as a big-endian number.

Arm64Effect allocS(uint32_t code) { return allocate((code & 0x1F) * 16); }
Arm64Effect allocM(uint32_t code) { return allocate((code & 0x7FF) * 16); }
Arm64Effect allocL(uint32_t code) { return allocate((code & 0xFFFFFF) * 16); }

Arm64Effect saveR19R20X(uint32_t code) {
  return save(File::kX, kFirstSavedX, true, 0, (code & 0x1F) * 8);
}
Arm64Effect saveFpLr(uint32_t code) {
  return save(File::kX, kFramePointer, true, (code & 0x3F) * 8);
}
Arm64Effect saveFpLrX(uint32_t code) {
  return save(File::kX, kFramePointer, true, 0, ((code & 0x3F) + 1) * 8);
}
Arm64Effect saveRegP(uint32_t code) {
  return save(File::kX, registerFrom(kFirstSavedX, code >> 6 & 15), true, (code & 0x3F) * 8);
}
Arm64Effect saveRegPX(uint32_t code) {
  const uint8_t reg = registerFrom(kFirstSavedX, code >> 6 & 15);
  return save(File::kX, reg, true, 0, ((code & 0x3F) + 1) * 8);
}
Arm64Effect saveReg(uint32_t code) {
  return save(File::kX, registerFrom(kFirstSavedX, code >> 6 & 15), false, (code & 0x3F) * 8);
}
Arm64Effect saveRegX(uint32_t code) {
  const uint8_t reg = registerFrom(kFirstSavedX, code >> 5 & 15);
  return save(File::kX, reg, false, 0, ((code & 0x1F) + 1) * 8);
}
Arm64Effect saveLrPair(uint32_t code) {
  const uint8_t reg = registerFrom(kFirstSavedX, 2 * (code >> 6 & 7));
  Arm64Effect effect = save(File::kX, reg, false, (code & 0x3F) * 8);
  effect.second = kLinkRegister;
  return effect;
}
Arm64Effect saveFRegP(uint32_t code) {
  return save(File::kD, registerFrom(kFirstSavedD, code >> 6 & 7), true, (code & 0x3F) * 8);
}
Arm64Effect saveFRegPX(uint32_t code) {
  const uint8_t reg = registerFrom(kFirstSavedD, code >> 6 & 7);
  return save(File::kD, reg, true, 0, ((code & 0x3F) + 1) * 8);
}
Arm64Effect saveFReg(uint32_t code) {
  return save(File::kD, registerFrom(kFirstSavedD, code >> 6 & 7), false, (code & 0x3F) * 8);
}
Arm64Effect saveFRegX(uint32_t code) {
  const uint8_t reg = registerFrom(kFirstSavedD, code >> 5 & 7);
  return save(File::kD, reg, false, 0, ((code & 0x1F) + 1) * 8);
}
Arm64Effect setFp(uint32_t) { return setFrame(0); }
Arm64Effect addFp(uint32_t code) { return setFrame((code & 0xFF) * 8); }
Arm64Effect saveNext(uint32_t) { return plain(Kind::kSaveNext); }
Arm64Effect nop(uint32_t) { return plain(Kind::kNop); }
Arm64Effect end(uint32_t) { return plain(Kind::kEnd); }
Arm64Effect endC(uint32_t) { return plain(Kind::kEndOfPart); }
Arm64Effect signLr(uint32_t) { return plain(Kind::kSign); }

// 11100111'0pxrrrrr'ffoooooo
Arm64Effect saveAny(uint32_t code) {
  const bool pair = (code >> 14 & 1) != 0;
  const bool pre_indexed = (code >> 13 & 1) != 0;
  const auto file = static_cast<File>(code >> 6 & 3);
  const uint32_t unit = pair || pre_indexed || file == File::kQ ? 16 : 8;
  // A pre-indexed store moves the stack pointer by at least one unit.
  const uint32_t bytes = ((code & 0x3F) + (pre_indexed ? 1 : 0)) * unit;
  return save(file, code >> 8 & 0x1F, pair, pre_indexed ? 0 : bytes, pre_indexed ? bytes : 0);
}

// Bit 15 makes it a reserved code. The fourth register file is that of scalable vectors.
bool isSaveAnySupported(uint32_t code) { return (code >> 15 & 1) == 0 && (code >> 6 & 3) != 3; }

struct CodeKind {
  uint8_t from;                          // the first byte, up to the next kind's
  uint8_t size;                          // bytes
  Arm64Effect (*decode)(uint32_t code);  // null: not supported
};

constexpr CodeKind kCodes[] = {
    {0x00, 1, allocS},
    {0x20, 1, saveR19R20X},
    {0x40, 1, saveFpLr},
    {0x80, 1, saveFpLrX},
    {0xC0, 2, allocM},
    {0xC8, 2, saveRegP},
    {0xCC, 2, saveRegPX},
    {0xD0, 2, saveReg},
    {0xD4, 2, saveRegX},
    {0xD6, 2, saveLrPair},
    {0xD8, 2, saveFRegP},
    {0xDA, 2, saveFRegPX},
    {0xDC, 2, saveFReg},
    {0xDE, 2, saveFRegX},
    {0xDF, 2, nullptr},  // allocates a multiple of the
                         // vector length
    {0xE0, 4, allocL},
    {0xE1, 1, setFp},
    {0xE2, 2, addFp},
    {0xE3, 1, nop},
    {0xE4, 1, end},
    {0xE5, 1, endC},
    {0xE6, 1, saveNext},
    {0xE7, 3, saveAny},
    {0xE8, 1, nullptr},  // custom stack layouts, then reserved codes
    {0xFC, 1, signLr},
    {0xFD, 1, nullptr},
};

constexpr uint8_t kSaveAny = 0xE7;

const CodeKind& kindOf(uint8_t first) {
  const auto* next =
      std::upper_bound(std::begin(kCodes), std::end(kCodes), first,
                       [](uint8_t byte, const CodeKind& kind) { return byte < kind.from; });
  return *(next - 1);
}

// Decodes the code at `index` and moves `index` to the next one.
Arm64Status decodeOne(std::span<const uint8_t> codes, size_t& index, Arm64Effect& out) {
  if (index >= codes.size()) return Arm64Status::kMalformed;
  const uint8_t first = codes[index];
  const CodeKind& kind = kindOf(first);
  if (codes.size() - index < kind.size) return Arm64Status::kMalformed;
  uint32_t code = 0;
  for (size_t i = 0; i < kind.size; ++i) code = code << 8 | codes[index + i];
  index += kind.size;
  if (kind.decode == nullptr) return Arm64Status::kUnsupported;
  if (first == kSaveAny && !isSaveAnySupported(code)) return Arm64Status::kUnsupported;
  out = kind.decode(code);
  return Arm64Status::kOk;
}

bool hasValidRegisters(const Arm64Effect& effect) {
  if (effect.kind != Kind::kSave) return true;
  const uint8_t last = effect.file == File::kX ? kLinkRegister : kLastD;
  const bool single = effect.second == Arm64Effect::kNoRegister;
  return effect.first <= last &&
         (single || (effect.second <= last && effect.first < effect.second));
}

// Whether save_next can continue it: a pair of adjacent registers other than the frame pointer's.
bool canBeContinued(const Arm64Effect& effect) {
  return effect.kind == Kind::kSave && effect.second == effect.first + 1 &&
         !(effect.file == File::kX && effect.first >= kFramePointer);
}

// A run of save_next precedes the pair that it continues, the pair with the highest numbers first.
bool resolveSaveNext(std::span<Arm64Effect> run, const Arm64Effect& pair) {
  if (run.empty()) return true;
  if (!canBeContinued(pair)) return false;
  for (size_t i = 0; i < run.size(); ++i) {
    const auto steps = static_cast<uint32_t>(run.size() - i);
    if (pair.first + 2 * steps > kLastD) return false;
    run[i] = save(pair.file, registerFrom(pair.first, 2 * steps), true,
                  pair.offset + 2 * steps * pair.registerBytes());
    if (!hasValidRegisters(run[i])) return false;
  }
  return true;
}

}  // namespace

Arm64Status decodeArm64Codes(std::span<const uint8_t> codes, size_t index, Arm64Sequence& out) {
  out.clear();
  size_t next_begin = 0;  // the first effect of the current run of save_next
  for (;;) {
    Arm64Effect effect;
    const Arm64Status status = decodeOne(codes, index, effect);
    if (status != Arm64Status::kOk) return status;
    if (effect.kind == Kind::kSaveNext) {
      out.effects.push_back(effect);
      continue;
    }
    const std::span<Arm64Effect> run = std::span(out.effects).subspan(next_begin);
    if (!resolveSaveNext(run, effect) || !hasValidRegisters(effect)) return Arm64Status::kMalformed;
    const bool ends = effect.kind == Kind::kEnd || effect.kind == Kind::kEndOfPart;
    if (!ends) out.effects.push_back(effect);
    if (ends && !out.has_end_c) out.instructions = out.effects.size();
    if (effect.kind == Kind::kEnd) return Arm64Status::kOk;
    if (ends) out.has_end_c = true;
    next_begin = out.effects.size();
  }
}

}  // namespace symforge_internal
