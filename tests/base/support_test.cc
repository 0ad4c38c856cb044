// The builders, each compared with a dump that was checked by hand against the format's tables,
// because all other tests of PDB and PE depend on them.

#include <gtest/gtest.h>

#include <string>

#include "builders/bytes.h"
#include "builders/codeview_builder.h"
#include "builders/msf_builder.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "tests/support/data.h"

namespace test_support {

using namespace builders;
namespace {

// A section of builder_dumps.txt, as hex_dump() writes it.
std::string dump(const std::string& name) {
  const std::string text = test_data("builder_dumps.txt");
  const size_t begin = text.find("[" + name + "]\n") + name.size() + 3;
  std::string bytes;
  for (const std::string& line : split(text.substr(begin, text.find("\n[", begin) - begin), '\n')) {
    bytes += from_hex(line.substr(0, line.find('#')));
  }
  return hex_dump(bytes);
}

// The first non-fill bytes of a page.
std::string page_head(const MsfFile& file, uint32_t page, size_t count) {
  return hex_dump(file.bytes.substr(size_t{page} * file.page_size, count));
}

TEST(MsfBuilderTest, WritesHeaderStreamsAndDirectory) {
  MsfBuilder msf(64);
  msf.add_stream("abc");
  msf.add_stream(std::string(64, 'x') + "tail");
  msf.add_stream("gone");
  msf.split(1, 1).override_size(2, 0xFFFFFFFF);
  const MsfFile file = msf.build();

  // Pages: 0 header, 1 and 2 free page maps, 3 stream 0, 4 and 6 stream 1, 7 directory, 8 index.
  ASSERT_EQ(file.bytes.size(), 9 * 64u);
  EXPECT_EQ(page_head(file, 0, 64), dump("header"));
  EXPECT_EQ(page_head(file, 1, 4), "ffff ffff");
  EXPECT_EQ(page_head(file, 3, 6), "6162 63ee eeee");
  EXPECT_EQ(page_head(file, 5, 4), "eeee eeee");
  EXPECT_EQ(page_head(file, 6, 6), "7461 696c eeee");
  EXPECT_EQ(page_head(file, 7, 32), dump("directory"));
  EXPECT_EQ(page_head(file, 8, 8), "0700 0000 eeee eeee");
  EXPECT_EQ(file.bytes[file.offset_of(1, 64)], 't');
}

TEST(ModuleBuilderTest, WritesSymbolsAndSubsections) {
  ModuleBuilder module;
  const uint32_t first = module.file(0x11, "\xAA\xBB\xCC", 1);
  const uint32_t second = module.file(0x22);
  module.proc({.name = "f", .section = 2, .offset = 0x30, .length = 0x40, .type = 0x1005})
      .inline_site(0x1234, Annotations().op(11, 0x24).op(4, 0x80))
      .inline_site_end()
      .thunk({.name = "t", .section = 3, .offset = 0x50, .length = 6}, 9);
  module.lines(2, 0x30, 0x40, second, {{0, 7}, {8, 0x80000009}});
  module.inlinees({{.inlinee = 0x1234, .file = first, .line = 5, .extra_files = {second}}}, 1);
  EXPECT_EQ(second, 12u);
  EXPECT_EQ(module.symbols_size(), 4u + 44 + 24 + 4 + 28);
  EXPECT_EQ(hex_dump(module.stream()), dump("module"));
}

TEST(TypeStreamBuilderTest, WritesRecordsWithEachPadding) {
  TypeStreamBuilder types;
  EXPECT_EQ(types.modifier(0x70, 1), 0x1000u);
  EXPECT_EQ(types.add(0x1601, "abcde", TypePadding::kZeros), 0x1001u);
  EXPECT_EQ(types.add(0x1606, "ab", TypePadding::kNone), 0x1002u);
  EXPECT_EQ(types.structure("S", 4), 0x1003u);
  EXPECT_EQ(hex_dump(types.stream().substr(0, 24)), dump("types"));
  EXPECT_EQ(hex_dump(types.stream().substr(56)), dump("more types"));
}

TEST(PeBuilderTest, WritesHeadersAndSections) {
  PeBuilder pe;
  pe.section(".text", 0x1000, "code").codeview(Guid{}, 1, "a.pdb");
  pe.function(0x1000, 0x1010,
              {.prolog_size = 4,
               .frame_register = 5,
               .frame_offset = 1,
               .slots = {unwind_slot(4, kAllocSmall, 3)}});
  const std::string image = pe.build();

  EXPECT_EQ(hex_dump(image.substr(0x38, 8)), "0000 0000 8000 0000");
  EXPECT_EQ(hex_dump(image.substr(0x80, 32)), dump("NT headers"));
  // The size of the image, and the data directories for exceptions and debugging.
  EXPECT_EQ(hex_dump(image.substr(0x80 + 24 + 56, 4)), "0000 0004");
  EXPECT_EQ(hex_dump(image.substr(0x80 + 24 + 112 + 3 * 8, 8)), "0000 0003 0c00 0000");
  EXPECT_EQ(hex_dump(image.substr(0x80 + 24 + 112 + 6 * 8, 8)), "0000 0001 3800 0000");
  EXPECT_EQ(hex_dump(image.substr(0x80 + 24 + 240, 40)), dump("section header"));
  EXPECT_EQ(image.substr(0x400, 4), "code");
  EXPECT_EQ(hex_dump(image.substr(0x600, 0x38)), dump("debug directory"));
  EXPECT_EQ(hex_dump(image.substr(0x638, 30)), dump("debug record"));
  EXPECT_EQ(hex_dump(image.substr(0x800, 8)), "0104 0115 0432 0000");
  EXPECT_EQ(hex_dump(image.substr(0xA00, 12)), "0010 0000 1010 0000 0000 0002");
}

}  // namespace
}  // namespace test_support
