// The unwind rules of an image as STACK CFI lines, in the published text format.
//
//   STACK CFI INIT ADDRESS SIZE RULES    rules at the first byte of a range
//   STACK CFI ADDRESS RULES              what changes there, ascending, inside of the range
//
// Ranges ascend and do not overlap. The ranges of unwind entries come from the caller. Between
// them, code of functions that no entry covers belongs to leaf functions by the ABIs of x86-64 and
// ARM64, and gets a range with the rules at a function's entry.
//
//   CfiWriter cfi(out, machine, functions);
//   for (each entry, by ascending address) {
//     if (!cfi.claim({begin, size})) continue;  // overlaps an earlier entry
//     cfi.start(rules);
//     cfi.change(begin + 1, rules_after_push);
//   }
//   cfi.finish();

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "base/text_buffer.h"
#include "symforge/src/pe/cfi_rules.h"

namespace symforge_internal {

// Code from an RVA on, in bytes.
struct CodeRange {
  uint32_t begin = 0;
  uint32_t size = 0;

  uint64_t end() const { return uint64_t{begin} + size; }
};

// What the lines need to know of a machine.
struct CfiMachine {
  // Indexed by register number, as the text spells them: at most CfiRules::kRegisters names of at
  // most 5 characters. Rules use only registers that have a name here. Rules of saved registers
  // are written in this order.
  std::span<const std::string_view> names;
  // The rules at a function's first instruction; those of a leaf function throughout.
  CfiRules at_entry;
};

// Appends the lines to a TextBuffer. Allocates nothing else. `out`, the names of `machine` and
// `functions` must outlive it. `functions` must ascend by `begin`; functions that overlap are
// covered once. Throws std::bad_alloc.
class CfiWriter {
 public:
  CfiWriter(TextBuffer& out, const CfiMachine& machine, std::span<const CodeRange> functions)
      : out_(out), machine_(machine), functions_(functions) {}

  // Begins the next range of an entry, after writing the last one's pending row and the leaf ranges
  // before this one. False, without any effect, for a range of size 0 or one that begins inside of
  // or below an earlier one. A range without start() is covered by an entry but has no rules.
  bool claim(CodeRange range);

  // The rules at the first byte of the claimed range. Once, before any change().
  void start(const CfiRules& rules);

  // The rules from `address` (RVA) on. Addresses must not descend within a range; the last rules
  // for one address count. Addresses at or beyond the range's end are ignored.
  void change(uint32_t address, const CfiRules& rules);

  // What the code of functions above the last claimed range is. kUnknown: entries are missing.
  enum class Rest : uint8_t { kLeaves, kUnknown };

  // Writes what is pending, and the leaf ranges that follow the last claimed range.
  void finish(Rest rest = Rest::kLeaves);

 private:
  void writeLeaves(uint64_t end);
  void writeInit(CodeRange range, const CfiRules& rules);
  void writePending();
  void writeChanges(LineWriter& line, const CfiRules& rules) const;

  TextBuffer& out_;
  CfiMachine machine_;
  std::span<const CodeRange> functions_;
  size_t function_ = 0;  // the first function that is not wholly below done_
  uint64_t done_ = 0;    // end of the code that was covered so far

  // The row that is written once one for a higher address comes.
  enum class Pending : uint8_t { kNothing, kInit, kRow };
  Pending pending_ = Pending::kNothing;
  CodeRange range_;
  uint32_t address_ = 0;
  CfiRules next_;
  CfiRules written_;  // the rules in force before the pending row
};

}  // namespace symforge_internal
