#include <gtest/gtest.h>

#include "builders/bytes.h"
#include "builders/guarded_block.h"
#include "builders/symb_builder.h"
#include "common/symb.h"
#include "common/text_buffer.h"

using namespace builders;

namespace {

bool valid(const std::string& block) {
  const GuardedBlock copy(block);
  return symb_validate(copy.address(), copy.size());
}

TEST(SymbValidateTest, TakesWrittenBlocks) {
  for (const uint32_t version : {1u, 2u, 3u}) {
    EXPECT_TRUE(valid(rich_symb_model(version).bytes())) << version;
  }
  EXPECT_TRUE(valid(SymbModel().bytes()));
  SymbModel model;
  model.functions = {{0xffffff00, 0x100, 0, "up to the last address", {{0xffffffff, 1, 1, 1}}, {}}};
  model.frame_info[0] = {{0, 0xffffffff, "", 0, {{0, 0xffffffff, ""}}}};
  EXPECT_TRUE(valid(model.bytes()));
}

// Damages that a model can express.
TEST(SymbValidateTest, RefusesTablesOutOfOrder) {
  const struct {
    const char* what;
    void (*damage)(SymbModel&);
  } kCases[] = {
      {"files", [](SymbModel& m) { std::swap(m.files[0], m.files[1]); }},
      {"file twice", [](SymbModel& m) { m.files[1].first = m.files[2].first; }},
      {"functions", [](SymbModel& m) { std::swap(m.functions[0], m.functions[1]); }},
      {"overlapping functions", [](SymbModel& m) { m.functions[0].size = 0x201; }},
      {"function past 4 GiB", [](SymbModel& m) { m.functions[2].size = 0xffffe001; }},
      {"lines", [](SymbModel& m) { std::swap(m.functions[0].lines[0], m.functions[0].lines[1]); }},
      {"overlapping lines", [](SymbModel& m) { m.functions[0].lines[0].size = 0x11; }},
      {"sites", [](SymbModel& m) { std::swap(m.functions[0].sites[0], m.functions[0].sites[1]); }},
      {"crossing sites", [](SymbModel& m) { m.functions[0].sites[1].size = 0x40; }},
      {"empty site", [](SymbModel& m) { m.functions[0].sites[1].size = 0; }},
      {"site past 4 GiB", [](SymbModel& m) { m.functions[0].sites[3].size = 0xfffffffe; }},
      {"publics", [](SymbModel& m) { std::swap(m.publics[0], m.publics[1]); }},
      {"public twice", [](SymbModel& m) { m.publics[1].address = m.publics[0].address; }},
      {"ranges", [](SymbModel& m) { std::swap(m.frame_info[4][0], m.frame_info[4][1]); }},
      {"overlapping ranges", [](SymbModel& m) { m.frame_info[4][1].base = 0x10ff; }},
      {"range that leaves its container", [](SymbModel& m) { m.frame_info[4][0].last = 0x1038; }},
      {"range below its container", [](SymbModel& m) { m.frame_info[4][0].base = 0x1011; }},
      {"range that ends before it begins", [](SymbModel& m) { m.frame_info[0][1].last = 0x1600; }},
      {"initial rules", [](SymbModel& m) { std::swap(m.initial_rules[0], m.initial_rules[1]); }},
      {"overlapping initial rules", [](SymbModel& m) { m.initial_rules[0].size = 0x101; }},
      {"delta rules", [](SymbModel& m) { std::swap(m.delta_rules[0], m.delta_rules[1]); }},
      {"delta rule twice", [](SymbModel& m) { m.delta_rules[1].first = 0xfff; }},
      {"foreign version", [](SymbModel& m) { m.version = 4; }},
  };
  for (const auto& c : kCases) {
    SymbModel model = rich_symb_model();
    c.damage(model);
    EXPECT_FALSE(valid(model.bytes())) << c.what;
  }
}

TEST(SymbValidateTest, RefusesDamagedReferences) {
  const std::string base = rich_symb_model().bytes();
  const uint64_t strings = get_u64(base, kSymbStringTable);
  const uint64_t strings_end = strings + get_u64(base, kSymbStringTable + 8);
  const uint64_t files = get_u64(base, kSymbFiles);
  const uint64_t functions = get_u64(base, kSymbFunctions);
  const uint64_t roots = get_u64(base, kSymbFrameInfo);
  const uint64_t map4 = get_u64(base, roots + 4 * 64 + 48);
  const struct {
    const char* what;
    size_t field;
    uint64_t value;
  } kCases[] = {
      {"magic", 0, 0x0000000342594D53},
      {"version 0", 0, 0x00000000424D5953},
      {"string before the table", kSymbOs, strings - 1},
      {"string behind the table", kSymbOs, strings_end},
      {"string in the middle of one", kSymbOs, strings + 1},
      {"no string", kSymbOs, 0},
      {"code identifier", kSymbCodeId, strings_end},
      {"string table beyond the block", kSymbStringTable, base.size()},
      {"string table size", kSymbStringTable + 8, UINT64_MAX - 7},
      {"string table size not padded", kSymbStringTable + 8, strings_end - strings - 1},
      {"no string table", kSymbStringTable + 8, 0},
      {"unaligned table", kSymbFiles, files + 4},
      {"table in the header", kSymbFiles, 8},
      {"two tables in one place", kSymbFiles, get_u64(base, kSymbPublics)},
      {"table beyond the block", kSymbSections, base.size() - 8},
      {"empty table beyond the block", kSymbFiles, base.size() + 8},
      {"count that overflows", kSymbFiles + 8, (1ull << 60) + 1},
      {"four roots", kSymbFrameInfo + 8, 4},
      {"six roots", kSymbFrameInfo + 8, 6},
      {"lines beyond the block", functions + 24, base.size()},
      {"lines that two functions share", functions + 2 * 48 + 24, get_u64(base, functions + 24)},
      {"sites unaligned", functions + 40, get_u64(base, functions + 40) + 1},
      {"name of a function", functions, 8},
      {"type of a range", map4, 0xffffffff00000003},
      {"program", map4 + 32, strings_end},
      {"ranges inside themselves", map4 + 48, map4},
      {"count without ranges", map4 + 64 + 56, 1},
  };
  for (const auto& c : kCases) {
    std::string block = base;
    put_u64(block, c.field, c.value);
    EXPECT_FALSE(valid(block)) << c.what;
  }
  std::string block = base;
  block[strings_end - 1] = 'x';
  EXPECT_FALSE(valid(block)) << "string table without an end";
}

}  // namespace
