#include "symforge/src/pe/x64_epilog.h"

namespace symforge_internal {

namespace {

// Prefix bits of a 64-bit instruction: W, and the high bits of the register and the base register.
constexpr uint8_t kRexW = 0x48;
constexpr uint8_t kRexR = 0x04;
constexpr uint8_t kRexB = 0x01;

int8_t signed8(std::span<const uint8_t> bytes) { return static_cast<int8_t>(bytes[0]); }

int32_t signed32(std::span<const uint8_t> bytes) {
  return static_cast<int32_t>(uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 |
                              uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24);
}

// The size of a ModRM byte and its operands, or 0 if it is truncated.
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

// The size of a jump through a register or memory, with a prefix or without, or 0.
size_t indirectJumpSize(std::span<const uint8_t> code) {
  const size_t prefix = (code[0] & 0xF0) == 0x40 ? 1 : 0;
  if (code.size() < prefix + 2 || code[prefix] != 0xFF) return 0;
  if ((code[prefix + 1] >> 3 & 7) != 4) return 0;
  const size_t operand = modrmSize(code.subspan(prefix + 1));
  return operand == 0 ? 0 : prefix + 1 + operand;
}

// The size of a return or of a jump out of the function, or 0 for any other instruction.
size_t exitSize(std::span<const uint8_t> code) {
  if (code.empty()) return 0;
  size_t size = 0;
  switch (code[0]) {
    case 0xC3:  // ret
      size = 1;
      break;
    case 0xC2:  // ret N
      size = 3;
      break;
    case 0xF2:  // bnd ret
    case 0xF3:  // rep ret
      size = code.size() > 1 && code[1] == 0xC3 ? 2 : 0;
      break;
    case 0xEB:  // jmp, offset of 8 bits
      size = 2;
      break;
    case 0xE9:  // jmp, offset of 32 bits
      size = 5;
      break;
    default:
      size = indirectJumpSize(code);
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
  const bool from_reg = code[1] == 0x89 && rm == kRsp && reg == frame_register;
  const bool from_rm = code[1] == 0x8B && reg == kRsp && rm == frame_register;
  if (mod == 3 && (from_reg || from_rm)) {
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

// False if there are more pops than any epilog has.
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

// Whether each pop restores what the prolog pushed there, and everything pushed is popped.
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
    depth -= kX64Word;
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
    depth -= kX64Word;
    rules.setCfa(kRsp, depth);
    rules.restore(pop.reg);
    cfi.change(at, rules);
  }
  cfi.change(address + size_, body.rules());
}

}  // namespace symforge_internal
