// Unwind rules as STACK CFI lines.

#include "symforge/src/pe/cfi_rows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/data.h"

namespace symforge_internal {
namespace {

enum NamedRegister : uint8_t { kSp, kFp, kLr, kX19 };
constexpr std::array<std::string_view, 4> kNames = {"sp", "x29", "x30", "x19"};

CfiRules rules(uint8_t cfa_register, int64_t cfa_offset,
               std::vector<std::pair<uint8_t, int64_t>> saved = {}) {
  CfiRules made;
  made.setCfa(cfa_register, cfa_offset);
  made.setReturnAddressRegister(kLr);
  for (const auto& [reg, distance] : saved) made.save(reg, distance);
  return made;
}

CfiRules withReturnAddressBelow(int64_t distance, CfiRules made) {
  made.setReturnAddressBelowCfa(distance);
  return made;
}

CfiMachine machine() { return {kNames, rules(kSp, 0)}; }

struct Row {
  uint32_t address;
  CfiRules rules;
};

// The lines of one range of 0x20 bytes at 0x1000.
std::string linesOf(const CfiRules& first, const std::vector<Row>& rows) {
  TextBuffer out;
  CfiWriter cfi(out, machine(), {});
  EXPECT_TRUE(cfi.claim({0x1000, 0x20}));
  cfi.start(first);
  for (const Row& row : rows) cfi.change(row.address, row.rules);
  cfi.finish();
  return std::string(out.view());
}

TEST(CfiRowsTest, WritesTheRulesAtTheFirstByte) {
  const std::string init = "STACK CFI INIT 1000 20 ";
  EXPECT_EQ(linesOf(rules(kSp, 0), {}), init + ".cfa: sp 0 + .ra: x30\n");
  // Registers in the machine's order; a negative distance is above the CFA.
  EXPECT_EQ(linesOf(withReturnAddressBelow(8, rules(kFp, -16, {{kX19, -8}, {kFp, 0}})), {}),
            init + ".cfa: x29 16 - .ra: .cfa 8 - ^ x29: .cfa 0 - ^ x19: .cfa 8 + ^\n");
  // Numbers of any width fit.
  CfiRules widest = withReturnAddressBelow(-INT64_MAX, rules(kX19, -INT64_MAX));
  for (uint8_t reg = 0; reg < kNames.size(); ++reg) widest.save(reg, INT64_MAX);
  const std::string below = ": .cfa 9223372036854775807 - ^";
  EXPECT_EQ(linesOf(widest, {}), init + ".cfa: x19 9223372036854775807 - .ra: .cfa " +
                                     "9223372036854775807 + ^ sp" + below + " x29" + below +
                                     " x30" + below + " x19" + below + "\n");
}

TEST(CfiRowsTest, WritesOnlyWhatChanges) {
  const CfiRules entry = rules(kSp, 0);
  const CfiRules pushed = withReturnAddressBelow(8, rules(kSp, 16, {{kFp, 16}}));
  const std::string init = "STACK CFI INIT 1000 20 .cfa: sp 0 + .ra: x30\n";
  const std::string push = "STACK CFI 1004 .cfa: sp 16 + .ra: .cfa 8 - ^ x29: .cfa 16 - ^\n";
  const struct {
    std::vector<Row> rows;
    std::string lines;
  } cases[] = {
      {{{0x1004, pushed}}, init + push},
      // Unchanged rules produce no row, not even when several changes at one address cancel out.
      {{{0x1004, pushed}, {0x1008, pushed}, {0x100C, entry}, {0x100C, pushed}}, init + push},
      // A register saved to another slot, and one that is no longer saved.
      {{{0x1004, pushed},
        {0x1008, withReturnAddressBelow(8, rules(kSp, 16, {{kFp, 8}, {kX19, 32}}))},
        {0x101F, entry}},
       init + push +
           "STACK CFI 1008 x29: .cfa 8 - ^ x19: .cfa 32 - ^\n"
           "STACK CFI 101f .cfa: sp 0 + .ra: x30 x29: x29 x19: x19\n"},
      // Several changes at one address are one row; at the first address they are part of the INIT
      // line.
      {{{0x1004, rules(kSp, 32)}, {0x1004, pushed}}, init + push},
      {{{0x1000, rules(kSp, 32)}, {0x1000, rules(kFp, 48)}},
       "STACK CFI INIT 1000 20 .cfa: x29 48 + .ra: x30\n"},
      // Changes after the range have no effect.
      {{{0x1004, pushed}, {0x1020, entry}, {UINT32_MAX, entry}}, init + push},
  };
  for (const auto& c : cases) EXPECT_EQ(linesOf(entry, c.rows), c.lines);
}

// The ranges of the INIT lines, each as "begin+size " in hexadecimal. Entries with their own rules
// are in brackets.
std::string rangesOf(const std::vector<CodeRange>& functions, const std::vector<CodeRange>& entries,
                     std::vector<bool>* claimed = nullptr) {
  TextBuffer out;
  CfiWriter cfi(out, machine(), functions);
  for (const CodeRange& entry : entries) {
    const bool taken = cfi.claim(entry);
    if (taken) cfi.start(rules(kFp, 0));
    if (claimed != nullptr) claimed->push_back(taken);
  }
  cfi.finish();
  std::string ranges;
  std::string_view rest = out.view();
  while (!rest.empty()) {
    const std::string line(rest.substr(0, rest.find('\n')));
    rest.remove_prefix(line.size() + 1);
    char begin[16];
    char size[16];
    char reg[8];
    EXPECT_EQ(std::sscanf(line.c_str(), "STACK CFI INIT %15s %15s .cfa: %7s", begin, size, reg), 3)
        << line;
    const std::string range = std::string(begin) + "+" + size;
    ranges += (std::string(reg) == "sp" ? range : "[" + range + "]") + " ";
  }
  return ranges;
}

std::vector<CodeRange> ranges(const std::string& text) {
  std::vector<CodeRange> list;
  for (const std::string& range : test_support::split(text)) {
    CodeRange& added = list.emplace_back();
    EXPECT_EQ(std::sscanf(range.c_str(), "%x+%x", &added.begin, &added.size), 2) << range;
  }
  return list;
}

TEST(CfiRowsTest, CoversTheRestOfFunctionsAsLeaves) {
  for (const auto& c : test_support::test_cases("covered_ranges.txt")) {
    const size_t bar = c.input.find('|');
    const std::string entries = c.input.substr(std::min(bar + 2, c.input.size()));
    EXPECT_EQ(rangesOf(ranges(c.input.substr(0, bar)), ranges(entries)), c.expected + " ");
  }
}

TEST(CfiRowsTest, RefusesEntriesThatOverlapAnEarlierOne) {
  std::vector<bool> claimed;
  EXPECT_EQ(rangesOf({{0x10, 0x30}},
                     {{0x18, 8}, {0x1F, 8}, {0x18, 8}, {0x8, 4}, {0x20, 0}, {0x20, 4}}, &claimed),
            "10+8 [18+8] [20+4] 24+1c ");
  EXPECT_EQ(claimed, (std::vector<bool>{true, false, false, false, false, true}));
}

TEST(CfiRowsTest, LeavesARangeWithoutRulesOut) {
  TextBuffer out;
  const CodeRange functions[] = {{0x10, 0x20}};
  CfiWriter cfi(out, machine(), functions);
  EXPECT_TRUE(cfi.claim({0x18, 8}));
  cfi.finish();
  EXPECT_EQ(out.view(),
            "STACK CFI INIT 10 8 .cfa: sp 0 + .ra: x30\n"
            "STACK CFI INIT 20 10 .cfa: sp 0 + .ra: x30\n");
}

}  // namespace
}  // namespace symforge_internal
