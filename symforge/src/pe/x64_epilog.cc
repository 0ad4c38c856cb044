#include "symforge/src/pe/x64_epilog.h"

namespace symforge_internal {

namespace {

using google_breakpad::isVolatile;
using google_breakpad::kRsp;

constexpr int64_t kWord = 8;

// Prefix bits of a 64-bit instruction: W, and the high bits of the register and the base register.
constexpr uint8_t kRexW = 0x48;
constexpr uint8_t kRexR = 0x04;
constexpr uint8_t kRexB = 0x01;

int8_t signed8(std::span<const uint8_t> bytes) { return static_cast<int8_t>(bytes[0]); }

int32_t signed32(std::span<const uint8_t> bytes) {
  return static_cast<int32_t>(uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 |
                              uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24);
}

// The size of a ModRM byte with what belongs to it, or 0 when it is cut short.
size_t modrmSize(std::span<const uint8_t> code) {
  if (code.empty()) return 0;
  const unsigned mod = code[0] >> 6;
  const unsigned rm = code[0] & 7;
  if (mod == 3) return 1;
  size_t size = 1;
  unsigned base = rm;
  if (rm == 4) {
    if (code.size() < 2) return 0;
    base = code[1] & 7;
    size = 2;
  }
  if (mod == 1) size += 1;
  if (mod == 2 || (mod == 0 && base == 5)) size += 4;
  return size <= code.size() ? size : 0;
}

// The size of a return or of a jump out of the function, or 0 for any other instruction.
size_t exitSize(std::span<const uint8_t> code) {
  const auto at = [code](size_t i) { return i < code.size() ? code[i] : uint8_t{0}; };
  size_t size = 0;
  if (at(0) == 0xC3) {  // ret
    size = 1;
  } else if (at(0) == 0xC2) {  // ret N
    size = 3;
  } else if ((at(0) == 0xF3 || at(0) == 0xF2) && at(1) == 0xC3) {  // rep ret, bnd ret
    size = 2;
  } else if (at(0) == 0xEB) {  // jmp, 8-bit offset
    size = 2;
  } else if (at(0) == 0xE9) {  // jmp, 32-bit offset
    size = 5;
  } else {  // jmp through a register or memory, with a prefix or without
    const size_t prefix = (at(0) & 0xF0) == 0x40 ? 1 : 0;
    if (at(prefix) != 0xFF || (at(prefix + 1) >> 3 & 7) != 4) return 0;
    const size_t operand = modrmSize(code.subspan(prefix + 1));
    size = operand == 0 ? 0 : prefix + 1 + operand;
  }
  return size <= code.size() ? size : 0;
}

}  // namespace

bool X64Epilog::read(std::span<const uint8_t> code, uint32_t size, const X64Frame& body) {
  release_size_ = 0;
  pop_count_ = 0;
  size_ = 0;
  if (body.hasMachineFrame()) return false;
  readRelease(code, body);
  size_ = release_size_;
  if (!readPops(code.subspan(size_))) return false;
  for (size_t i = 0; i < pop_count_; ++i) size_ += pops_[i].size;
  const uint32_t exit_begin = size_;
  const size_t exit = exitSize(code.subspan(exit_begin));
  size_ += static_cast<uint32_t>(exit);
  return exit != 0 && exit_begin <= size && size <= size_ && matches(body);
}

// Reads the instruction that frees the stack, if there is one.
void X64Epilog::readRelease(std::span<const uint8_t> code, const X64Frame& body) {
  if (code.size() < 3 || (code[0] & ~(kRexR | kRexB)) != kRexW) return;
  if (code[0] == kRexW && code[2] == 0xC4 && code[1] == 0x83 && code.size() >= 4) {
    release(4, body.depth() - signed8(code.subspan(3)));  // add rsp, N
  } else if (code[0] == kRexW && code[2] == 0xC4 && code[1] == 0x81 && code.size() >= 7) {
    release(7, body.depth() - signed32(code.subspan(3)));
  } else if (body.hasFrameRegister()) {
    readFrameRegister(code, body.rules());
  }
}

// lea rsp, [FRAME_REGISTER + N] and mov rsp, FRAME_REGISTER.
void X64Epilog::readFrameRegister(std::span<const uint8_t> code, const CfiRules& body) {
  const bool rex_r = (code[0] & kRexR) != 0;
  const bool rex_b = (code[0] & kRexB) != 0;
  const unsigned mod = code[2] >> 6;
  const unsigned reg = (code[2] >> 3 & 7U) | (rex_r ? 8U : 0U);
  const unsigned rm = (code[2] & 7U) | (rex_b ? 8U : 0U);
  const unsigned frame_register = body.cfaRegister();
  if (code[1] == 0x8B && mod == 3 && reg == kRsp && rm == frame_register) {
    release(3, body.cfaOffset());
  } else if (code[1] == 0x89 && mod == 3 && rm == kRsp && reg == frame_register) {
    release(3, body.cfaOffset());
  } else if (code[1] == 0x8D && reg == kRsp && rm == frame_register) {
    const size_t offset = (rm & 7) == 4 ? 4 : 3;  // such a base register takes one more byte
    if (offset == 4 && (code.size() < 4 || code[3] != 0x24)) return;
    if (mod == 1 && code.size() > offset) {
      release(offset + 1, body.cfaOffset() - signed8(code.subspan(offset)));
    } else if (mod == 2 && code.size() >= offset + 4) {
      release(offset + 4, body.cfaOffset() - signed32(code.subspan(offset)));
    }
  }
}

void X64Epilog::release(size_t size, int64_t depth) {
  release_size_ = static_cast<uint32_t>(size);
  released_depth_ = depth;
}

// False for more pops than any epilog has.
bool X64Epilog::readPops(std::span<const uint8_t> code) {
  while (true) {
    const size_t prefix = !code.empty() && (code[0] & 0xF0) == 0x40 ? 1 : 0;
    if (code.size() <= prefix || (code[prefix] & 0xF8) != 0x58) return true;
    if (pop_count_ == kMostPops) return false;
    const unsigned high = prefix != 0 && (code[0] & kRexB) != 0 ? 8U : 0U;
    pops_[pop_count_++] = {static_cast<uint8_t>((code[prefix] & 7U) | high),
                           static_cast<uint8_t>(prefix + 1)};
    code = code.subspan(prefix + 1);
  }
}

// Whether each pop takes back what the prolog pushed there, and nothing that it pushed is left.
bool X64Epilog::matches(const X64Frame& body) const {
  int64_t depth = depthBeforePops();
  if (release_size_ != 0 && released_depth_ != depth) return false;
  uint32_t left = body.pushedMask();
  for (const Pop& pop : pops()) {
    if (pop.reg == kRsp) return false;
    if (!isVolatile(pop.reg)) {
      const uint32_t bit = uint32_t{1} << pop.reg;
      if ((left & bit) == 0 || body.rules().savedDistance(pop.reg) != depth) return false;
      left &= ~bit;
    }
    depth -= kWord;
  }
  return left == 0;
}

void X64Epilog::writeRows(uint32_t address, const X64Frame& body, CfiWriter& cfi) const {
  CfiRules rules = X64Frame().rules();
  for (const Pop& pop : pops()) {
    if (!isVolatile(pop.reg)) rules.save(pop.reg, body.rules().savedDistance(pop.reg));
  }
  int64_t depth = depthBeforePops();
  uint32_t at = address + release_size_;
  rules.setCfa(kRsp, depth);
  cfi.change(at, rules);
  for (const Pop& pop : pops()) {
    at += pop.size;
    depth -= kWord;
    rules.setCfa(kRsp, depth);
    rules.restore(pop.reg);
    cfi.change(at, rules);
  }
  cfi.change(address + size_, body.rules());
}

}  // namespace symforge_internal
