#include "symforge/src/pe/cfi_rows.h"

#include <algorithm>
#include <bit>
#include <cassert>

#include "common/symbol_text.h"

namespace symforge_internal {

namespace {

// A rule takes a name of up to 5 characters, a number of up to 20 and 14 characters around them;
// .cfa and .ra together count as three.
constexpr size_t kLongestRule = 40;
constexpr size_t kLongestLine = 64 + (CfiRules::kRegisters + 3) * kLongestRule;

// Addresses of code have 32 bits.
constexpr uint64_t kAddressSpace = uint64_t{1} << 32;

void writeCfa(LineWriter& line, const CfiMachine& machine, const CfiRules& rules) {
  const int64_t offset = rules.cfaOffset();
  line.str(" .cfa: ").str(machine.names[rules.cfaRegister()]);
  line.chr(' ').dec_signed(offset < 0 ? -offset : offset).str(offset < 0 ? " -" : " +");
}

// The value in memory at a distance below the CFA.
void writeLoad(LineWriter& line, int64_t distance) {
  line.str(" .cfa ").dec_signed(distance < 0 ? -distance : distance);
  line.str(distance < 0 ? " + ^" : " - ^");
}

void writeReturnAddress(LineWriter& line, const CfiMachine& machine, const CfiRules& rules) {
  line.str(" .ra:");
  if (rules.isReturnAddressInMemory()) {
    writeLoad(line, rules.returnAddressDistance());
  } else {
    line.chr(' ').str(machine.names[rules.returnAddressRegister()]);
  }
}

// The rules of the registers in `mask`. One that is not saved is its own rule.
void writeSavedRegisters(LineWriter& line, const CfiMachine& machine, const CfiRules& rules,
                         uint32_t mask) {
  for (; mask != 0; mask &= mask - 1) {
    const auto reg = static_cast<uint8_t>(std::countr_zero(mask));
    const std::string_view name = machine.names[reg];
    line.chr(' ').str(name).chr(':');
    if (rules.isSaved(reg)) {
      writeLoad(line, rules.savedDistance(reg));
    } else {
      line.chr(' ').str(name);
    }
  }
}

bool sameCfa(const CfiRules& a, const CfiRules& b) {
  return a.cfaRegister() == b.cfaRegister() && a.cfaOffset() == b.cfaOffset();
}

bool sameReturnAddress(const CfiRules& a, const CfiRules& b) {
  return a.isReturnAddressInMemory() == b.isReturnAddressInMemory() &&
         a.returnAddressRegister() == b.returnAddressRegister() &&
         a.returnAddressDistance() == b.returnAddressDistance();
}

}  // namespace

bool CfiWriter::claim(CodeRange range) {
  if (range.size == 0 || range.begin < done_) return false;
  writePending();
  writeLeaves(range.begin);
  range_ = range;
  done_ = range.end();
  return true;
}

void CfiWriter::start(const CfiRules& rules) {
  assert(pending_ == Pending::kNothing);
  pending_ = Pending::kInit;
  address_ = range_.begin;
  next_ = rules;
}

void CfiWriter::change(uint32_t address, const CfiRules& rules) {
  if (address >= range_.end()) return;
  assert(pending_ != Pending::kNothing && address >= address_);
  if (address > address_) {
    writePending();
    pending_ = Pending::kRow;
    address_ = address;
  }
  next_ = rules;
}

void CfiWriter::finish(Rest rest) {
  writePending();
  if (rest == Rest::kLeaves) writeLeaves(UINT64_MAX);
}

// Writes a range for each part of a function that is above done_ and below `end`.
void CfiWriter::writeLeaves(uint64_t end) {
  while (function_ < functions_.size()) {
    const CodeRange& function = functions_[function_];
    const uint64_t from = std::max<uint64_t>(function.begin, done_);
    const uint64_t to = std::min({function.end(), end, kAddressSpace});
    if (from < to) {
      writeInit({static_cast<uint32_t>(from), static_cast<uint32_t>(to - from)}, machine_.at_entry);
      done_ = to;
    }
    if (function.end() > end) break;
    ++function_;
  }
}

void CfiWriter::writeInit(CodeRange range, const CfiRules& rules) {
  LineWriter line(out_, kLongestLine);
  put_cfi_init(line, range.begin, range.size);
  writeCfa(line, machine_, rules);
  writeReturnAddress(line, machine_, rules);
  writeSavedRegisters(line, machine_, rules, rules.savedMask());
  line.chr('\n');
}

void CfiWriter::writePending() {
  if (pending_ == Pending::kInit) {
    writeInit(range_, next_);
  } else if (pending_ == Pending::kRow && next_ != written_) {
    LineWriter line(out_, kLongestLine);
    put_cfi_delta(line, address_);
    writeChanges(line, next_);
    line.chr('\n');
  }
  if (pending_ != Pending::kNothing) written_ = next_;
  pending_ = Pending::kNothing;
}

void CfiWriter::writeChanges(LineWriter& line, const CfiRules& rules) const {
  if (!sameCfa(rules, written_)) writeCfa(line, machine_, rules);
  if (!sameReturnAddress(rules, written_)) writeReturnAddress(line, machine_, rules);
  uint32_t changed = 0;
  for (uint32_t left = rules.savedMask() | written_.savedMask(); left != 0; left &= left - 1) {
    const auto reg = static_cast<uint8_t>(std::countr_zero(left));
    if (rules.isSaved(reg) != written_.isSaved(reg) ||
        rules.savedDistance(reg) != written_.savedDistance(reg)) {
      changed |= uint32_t{1} << reg;
    }
  }
  writeSavedRegisters(line, machine_, rules, changed);
}

}  // namespace symforge_internal
