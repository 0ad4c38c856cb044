// Which function a block of lines is assigned to.

#include "symforge/src/emit/line_records.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

TEST(LineRecordsTest, AssignsABlockToTheFunctionAtOrAfterItsStart) {
  struct Block {
    uint16_t section;
    uint32_t offset;
    std::vector<Line> lines;
    bool unknown_file = false;
  };
  const struct {
    const char* what;
    std::vector<Block> blocks;
    std::string lines;  // of f at 0x1010, 8 bytes, and g at 0x1020, 8 bytes
  } cases[] = {
      {"exact", {{1, 0x20, {{0, 1}}}}, "g 1020 8 1 1"},
      {"before all", {{1, 1, {{0, 1}}}}, "f 1010 8 1 1"},
      {"inside f", {{1, 0x14, {{0, 1}}}}, "g 1020 8 1 1"},
      {"after all", {{1, 99, {{0, 1}}}}, "g 1020 8 1 1"},
      {"no section", {{0, 99, {{0, 1}}}}, "f 1010 8 1 1"},
      {"the first stays", {{1, 0x10, {{0, 1}}}, {1, 0x10, {{0, 2}}}}, "f 1010 8 1 1"},
      {"one from 0 does not stay", {{1, 0, {{0, 1}}}, {1, 0x10, {{0, 2}}}}, "f 1010 8 2 1"},
      {"an unknown file leaves the function free",
       {{1, 0x10, {{0, 1}}, true}, {1, 0x10, {{0, 2}}}},
       "f 1010 8 2 1"},
      {"without lines", {{1, 0x10, {}}, {1, 0x10, {{0, 2}}}}, ""},
      {"flags, unsorted and repeated offsets",
       {{1, 0x10, {{4, 0x80000005}, {4, 6}, {0, 0xFF000007}}}},
       "f 1014 0 5 1 1014 fffffffc 6 1 1010 8 7 1"},
      // 0x15 too far: moved down by 0x20
      {"last line after the end", {{1, 0x10, {{0, 1}, {0x1D, 2}}}}, "f ff0 1d 1 1 100d b 2 1"},
      {"last line at a multiple of 16 after the end", {{1, 0x10, {{0x18, 2}}}}, "f 1018 0 2 1"},
  };
  const auto linesOf = [](const std::function<void(ModuleBuilder&, uint32_t file)>& change) {
    const std::string found = recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t file) {
      module.proc({.name = "f", .offset = 0x10, .length = 8, .type = pdb.type}).end();
      module.proc({.name = "g", .offset = 0x20, .length = 8, .type = pdb.type}).end();
      change(module, file);
    });
    std::istringstream text(found);
    std::string lines, name;
    for (std::string line; std::getline(text, line);) {
      if (line.starts_with("FUNC")) {
        name = line.substr(line.size() - 3, 1);
      } else {
        lines += (lines.empty() ? name : "") + " " + line;
      }
    }
    return lines;
  };
  for (const auto& c : cases) {
    EXPECT_EQ(linesOf([&](ModuleBuilder& module, uint32_t file) {
                for (const Block& block : c.blocks) {
                  module.lines(block.section, block.offset, 8, block.unknown_file ? 4 : file,
                               block.lines);
                }
              }),
              c.lines)
        << c.what;
  }
  EXPECT_EQ(linesOf([](ModuleBuilder& module, uint32_t file) {
              module.lines(1, 0x10, 8, {{file, {{0, 1}}}, {file, {{4, 2}}}});
            }),
            "f 1010 8 1 1")
      << "only the first file of a block counts";
}

// Data that exceed the pages of a module lose the rest of that module's lines and nothing else.
TEST(LineRecordsTest, LosesOnlyTheTruncatedModule) {
  SmallPdb pdb;
  for (const uint32_t offset : {0x10u, 0x20u}) {
    ModuleBuilder& module = pdb.add_module("m");
    const uint32_t file = module.file(pdb.names.add("a.cc"));
    module.proc({.name = "f", .offset = offset, .length = 8, .type = pdb.type}).end();
    if (offset == 0x10)
      module.subsection(kLines, Bytes().u32(0x10).u16(1).u16(0).u32(8).u32(file).u32(5000).str());
    module.lines(1, offset, 8, file, {{0, 1}});
  }
  EXPECT_EQ(records(convert(pdb)), "FUNC 1:1010 8 0 f()\nFUNC 1:1020 8 0 f()\n1020 8 1 2\n");
}

}  // namespace
}  // namespace test_support
