// Inlined calls: ranges, nesting, call positions and the lines of the innermost code.

#include "symforge/src/standard/inline_calls.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "symforge/src/StreamReader.h"
#include "tests/support/data.h"

namespace symforge_internal {
namespace {

constexpr uint64_t kPlenty = 1 << 20;

// A site of the function: rows of {start, end, line} in the file with its origin's number, and the
// sites inside it. Origin 0 is a site without a name.
struct Site {
  uint32_t origin;
  std::vector<std::vector<uint32_t>> rows;
  std::vector<Site> inside = {};
};

// "ORIGIN START-END:LINE ...; > ORIGIN ...", with hexadecimal offsets; one ">" more for each level.
std::vector<Site> sites(const std::string& text) {
  std::vector<Site> outer;
  std::vector<Site>* around = &outer;
  for (const std::string& word : test_support::split(text)) {
    uint32_t start = 0, end = 0, line = 0;
    if (word == ">") {
      around = &around->back().inside;
    } else if (std::sscanf(word.c_str(), "%x-%x:%u", &start, &end, &line) == 3) {
      around->back().rows.push_back({start, end, line});
    } else if (word == ";") {
      around = &outer;
    } else {
      around->push_back({static_cast<uint32_t>(std::stoul(word)), {}});
    }
  }
  return outer;
}

void addRow(InlineCalls& calls, const CodeRow& row) {
  calls.addRows([&row](auto& rows) { rows.push_back(row); });
}

void open(InlineCalls& calls, const Site& site) {
  if (site.origin == 0) {
    calls.openLeftOut();
  } else {
    calls.open(site.origin);
    for (const auto& row : site.rows) addRow(calls, {row[0], row[1], {site.origin, row[2]}});
  }
  for (const Site& inner : site.inside) open(calls, inner);
  calls.close();
}

std::vector<CodeRow> own(const std::vector<std::vector<uint32_t>>& rows) {
  std::vector<CodeRow> lines;
  for (const auto& row : rows) lines.push_back({row[0], row[1], {1, row[2]}});
  return lines;
}

// "depth file:line origin ranges; " of each call, then "| start-end file:line" of each line.
std::string text(const InlineCalls& calls) {
  std::string text;
  const auto add = [&text](const char* format, auto... values) {
    char piece[96];
    std::snprintf(piece, sizeof(piece), format, values...);
    text += piece;
  };
  for (const InlinedCall& call : calls.calls()) {
    add("%u %u:%u %u", call.depth, call.caller.file, call.caller.line, call.origin);
    for (uint32_t i = 0; i < call.rangeCount; ++i) {
      const InlineRange& range = calls.ranges()[call.firstRange + i];
      add(" %x-%x", range.start, range.end);
    }
    text += "; ";
  }
  text += "|";
  for (const CodeRow& row : calls.lines()) {
    add(" %x-%x %u:%u", row.start, row.end, row.place.file, row.place.line);
  }
  return text;
}

TEST(InlineCalls, FollowFromTheRowsOfTheSites) {
  InlineCalls calls(kPlenty);
  for (const auto& c : test_support::test_cases("inline_sites.txt")) {
    calls.begin(0x40);
    for (const Site& site : sites(c.input)) open(calls, site);
    calls.close();  // one too many
    calls.resolve(own({{0, 0x10, 10}, {0x10, 0x20, 11}, {0x20, 0x40, 12}}));
    EXPECT_EQ(text(calls), c.expected) << c.input;
  }
}

TEST(InlineCalls, CodeWithoutALineIsACallerToo) {
  InlineCalls calls(kPlenty);
  calls.begin(0x20);
  calls.open(2);
  addRow(calls, {0, 8, {2, 70}});
  addRow(calls, {8, 0x10, {3, 70}});
  calls.resolve(own({{8, 0xc, 5}}));
  EXPECT_EQ(text(calls), "0 0:0 2 0-8 c-10; 0 1:5 2 8-c; | 0-8 2:70 8-10 3:70");
  EXPECT_EQ(calls.calls().front().calleeFile, 2u) << "not that of its first code";
}

TEST(InlineCalls, StopAtTheDeepestCall) {
  InlineCalls calls(kPlenty);
  calls.begin(0x20);
  for (uint32_t i = 0; i < 2 * InlineCalls::kMaxDepth; ++i) {
    if (calls.full()) {
      calls.openLeftOut();
      continue;
    }
    calls.open(i);
    addRow(calls, {0, 0x20, {2, i}});
  }
  calls.resolve({});
  ASSERT_EQ(calls.calls().size(), InlineCalls::kMaxDepth);
  EXPECT_EQ(calls.calls().back().depth, InlineCalls::kMaxDepth - 1);
}

TEST(InlineCalls, EndWhenTheBudgetIsUsedUp) {
  InlineCalls calls(64);
  calls.begin(0x1000);
  for (uint32_t depth = 0; depth < 16; ++depth) {
    calls.open(depth);
    if (depth != 0) addRow(calls, {0, 0x1000, {2, depth}});
    for (uint32_t i = 0; depth == 0 && i < 16; ++i) addRow(calls, {8 * i, 8 * i + 4, {2, i}});
  }
  EXPECT_THROW(calls.resolve({}), pdb_exception);
}

// For rows that overlap arbitrarily, the requirements of the symbol file are met, and the lines
// cover exactly the code that has a position.
TEST(InlineCalls, NestForAnyRows) {
  std::mt19937 random(7);
  const auto number = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  InlineCalls calls(1 << 30);
  for (int round = 0; round < 300; ++round) {
    constexpr uint32_t kSize = 64;
    calls.begin(kSize);
    const uint32_t sites = number(12);
    for (uint32_t i = 1; i <= sites; ++i) {
      calls.open(i);
      for (uint32_t r = number(4); r != 0; --r) {
        const uint32_t start = number(kSize);
        addRow(calls, {start, start + number(kSize), {i, number(3)}});
      }
      for (uint32_t c = number(3); c != 0; --c) calls.close();
    }
    calls.resolve(own({{4, 60, 9}}));

    // The number of calls around each byte, and the innermost of them.
    std::vector<uint32_t> depths(kSize);
    std::vector<uint32_t> innermost(kSize, 0);
    for (uint32_t depth = 0; depth < 12; ++depth) {
      for (const InlinedCall& call : calls.calls()) {
        if (call.depth != depth) continue;
        ASSERT_NE(call.rangeCount, 0u);
        for (uint32_t i = 0; i < call.rangeCount; ++i) {
          const InlineRange& range = calls.ranges()[call.firstRange + i];
          ASSERT_LT(range.start, range.end);
          ASSERT_LE(range.end, kSize);
          for (uint32_t at = range.start; at < range.end; ++at) {
            ASSERT_EQ(depths[at]++, depth);  // once per depth, and inside its caller
            innermost[at] = call.origin;
          }
        }
      }
    }
    std::vector<uint32_t> written(kSize, 0);
    uint32_t end = 0;
    for (const CodeRow& row : calls.lines()) {
      ASSERT_LE(end, row.start);
      ASSERT_LT(row.start, row.end);
      end = row.end;
      for (uint32_t at = row.start; at < row.end; ++at) written[at] = row.place.file;
    }
    for (uint32_t at = 0; at < kSize; ++at) {
      const bool ownLine = depths[at] == 0 && at >= 4 && at < 60;
      ASSERT_EQ(written[at], ownLine ? 1 : innermost[at]) << round << " at " << at;
    }
  }
}

}  // namespace
}  // namespace symforge_internal
