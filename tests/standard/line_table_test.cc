// The lines of one function, computed from its blocks.

#include "symforge/src/standard/line_table.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "builders/bytes.h"

namespace symforge_internal {
namespace {

struct Block {
  uint32_t file;
  std::vector<std::pair<uint32_t, uint32_t>> lines;  // offset, line
  uint32_t shift = 0;
};

// "start-end file:line" of each row of a function of 0x40 bytes.
std::string rows(const std::vector<Block>& blocks) {
  LineTable table;
  for (int pass = 0; pass < 2; ++pass) {  // a table is reused for each function
    table.begin(0x40);
    for (const Block& block : blocks) {
      builders::Bytes bytes;
      for (const auto& [offset, line] : block.lines) bytes.u32(offset).u32(line);
      const std::string records = std::move(bytes).str();
      table.add(reinterpret_cast<const CV_Line*>(records.data()), block.lines.size(), block.shift,
                block.file);
    }
    table.finish();
  }
  std::string text;
  for (const CodeRow& row : table.rows()) {
    char line[64];
    std::snprintf(line, sizeof(line), "%x-%x %u:%u, ", row.start, row.end, row.place.file,
                  row.place.line);
    text += line;
  }
  return text;
}

TEST(LineTable, PutsTheRecordsOfAllBlocksInOrder) {
  const struct {
    const char* what;
    std::vector<Block> blocks;
    const char* rows;
  } cases[] = {
      {"one block, flags above the number",
       {{1, {{0, 0x80000005}, {8, 6}}}},
       "0-8 1:5, 8-40 1:6, "},
      {"stretches of an included file",
       {{1, {{0, 29}, {4, 31}}}, {2, {{0x20, 2}, {0x28, 3}}}, {1, {{0x24, 31}}}},
       "0-4 1:29, 4-20 1:31, 20-24 2:2, 24-28 1:31, 28-40 2:3, "},
      {"a block that begins inside of the function",
       {{1, {{0, 1}, {4, 2}}, 0x10}},
       "10-14 1:1, 14-40 1:2, "},
      {"markers belong to the line before",
       {{1, {{0, 7}, {4, 0xF00F00}, {8, 0xFEEFEE}, {12, 8}}}},
       "0-c 1:7, c-40 1:8, "},
      {"a marker without a line before it", {{1, {{0, 0xF00F00}, {4, 7}}}}, "4-40 1:7, "},
      {"the last of several at one offset",
       {{1, {{0, 1}, {0, 2}}}, {2, {{0, 3}, {4, 4}}}},
       "0-4 2:3, 4-40 2:4, "},
      {"records outside of the function",
       {{1, {{0, 1}, {0x40, 2}}}, {1, {{0, 9}}, 0xFFFFFFF0}},
       "0-40 1:1, "},
      {"no record", {{1, {}}}, ""},
  };
  for (const auto& test : cases) EXPECT_EQ(rows(test.blocks), test.rows) << test.what;
}

}  // namespace
}  // namespace symforge_internal
