// The builders, each compared with a dump that was checked by hand against the format's tables,
// because all other tests of PDB and PE depend on them.

#include <gtest/gtest.h>

#include <string>

#include "builders/bytes.h"
#include "builders/codeview_builder.h"
#include "builders/msf_builder.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"

namespace test_support {

using namespace builders;
namespace {

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
  EXPECT_EQ(page_head(file, 0, 64),
            "4d69 6372 6f73 6f66 7420 432f 432b 2b20\n"  // Microsoft C/C++
            "4d53 4620 372e 3030 0d0a 1a44 5300 0000\n"  // MSF 7.00
            "4000 0000 0100 0000 0900 0000 1c00 0000\n"  // page size, map, pages, directory size
            "0000 0000 0800 0000 eeee eeee eeee eeee");  // reserved, index page
  EXPECT_EQ(page_head(file, 1, 4), "ffff ffff");
  EXPECT_EQ(page_head(file, 3, 6), "6162 63ee eeee");
  EXPECT_EQ(page_head(file, 5, 4), "eeee eeee");
  EXPECT_EQ(page_head(file, 6, 6), "7461 696c eeee");
  EXPECT_EQ(page_head(file, 7, 32),
            "0300 0000 0300 0000 4400 0000 ffff ffff\n"  // three streams and their sizes
            "0300 0000 0400 0000 0600 0000 eeee eeee");  // their pages
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
  EXPECT_EQ(hex_dump(module.stream()),
            "0400 0000 2a00 1011 0000 0000 0000 0000\n"  // signature; S_GPROC32: parent, end,
            "0000 0000 4000 0000 0000 0000 4000 0000\n"  // next, length, debug start and end,
            "0510 0000 3000 0000 0200 0066 0000 0000\n"  // type, offset, section, flags, name
            "1600 4d11 0000 0000 0000 0000 3412 0000\n"  // S_INLINESITE: parent, end, inlinee
            "0b24 0480 8000 0000 0200 4e11 1a00 0211\n"  // annotations; end of site; S_THUNK32:
            "0900 0000 0000 0000 0000 0000 5000 0000\n"  // parent, end, next, offset,
            "0300 0600 0074 0000 f400 0000 1400 0000\n"  // section, length, kind, name; checksums
            "1100 0000 0301 aabb cc00 0000 2200 0000\n"
            "0000 0000 f200 0000 2800 0000 3000 0000\n"  // lines: offset,
            "0200 0000 4000 0000 0c00 0000 0200 0000\n"  // section, flags, size; file, count,
            "1c00 0000 0000 0000 0700 0000 0800 0000\n"  // block size, lines
            "0900 0080 f600 0000 1800 0000 0100 0000\n"  // inlinees: signature,
            "3412 0000 0000 0000 0500 0000 0100 0000\n"  // inlinee, file, line, extra files
            "0c00 0000");
}

TEST(TypeStreamBuilderTest, WritesRecordsWithEachPadding) {
  TypeStreamBuilder types;
  EXPECT_EQ(types.modifier(0x70, 1), 0x1000u);
  EXPECT_EQ(types.add(0x1601, "abcde", TypePadding::kZeros), 0x1001u);
  EXPECT_EQ(types.add(0x1606, "ab", TypePadding::kNone), 0x1002u);
  EXPECT_EQ(types.structure("S", 4), 0x1003u);
  EXPECT_EQ(hex_dump(types.stream().substr(0, 24)),
            "0bca 3101 3800 0000 0010 0000 0410 0000\n"
            "3600 0000 ffff ffff");
  EXPECT_EQ(hex_dump(types.stream().substr(56)),
            "0a00 0110 7000 0000 0100 f2f1 0700 0116\n"  // counted; zeros:
            "6162 6364 6500 0000 0400 0616 6162 1600\n"  // none; structure
            "0515 0000 0000 0000 0000 0000 0000 0000\n"
            "0000 0400 5300");
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
  EXPECT_EQ(hex_dump(image.substr(0x80, 32)),
            "5045 0000 6486 0400 0100 005f 0000 0000\n"  // machine, sections, time stamp
            "0000 0000 f000 2200 0b02 0000 0000 0000");  // size of optional header; magic
  // The size of the image, and the data directories for exceptions and debugging.
  EXPECT_EQ(hex_dump(image.substr(0x80 + 24 + 56, 4)), "0000 0004");
  EXPECT_EQ(hex_dump(image.substr(0x80 + 24 + 112 + 3 * 8, 8)), "0000 0003 0c00 0000");
  EXPECT_EQ(hex_dump(image.substr(0x80 + 24 + 112 + 6 * 8, 8)), "0000 0001 3800 0000");
  EXPECT_EQ(hex_dump(image.substr(0x80 + 24 + 240, 40)),
            "2e74 6578 7400 0000 0400 0000 0010 0000\n"
            "0400 0000 0004 0000 0000 0000 0000 0000\n"
            "0000 0000 4000 0040");
  EXPECT_EQ(image.substr(0x400, 4), "code");
  EXPECT_EQ(hex_dump(image.substr(0x600, 0x38)),
            "0000 0000 0000 0000 0000 0000 1000 0000\n"
            "0000 0000 0000 0000 0000 0000 0000 0000\n"
            "0000 0000 0000 0000 0200 0000 1e00 0000\n"  // kind 2, size
            "3800 0001 0000 0000");                      // RVA
  EXPECT_EQ(hex_dump(image.substr(0x638, 30)),
            "5253 4453 6745 2301 ab89 efcd 1032 5476\n"
            "98ba dcfe 0100 0000 612e 7064 6200");
  EXPECT_EQ(hex_dump(image.substr(0x800, 8)), "0104 0115 0432 0000");
  EXPECT_EQ(hex_dump(image.substr(0xA00, 12)), "0010 0000 1010 0000 0000 0002");
}

}  // namespace
}  // namespace test_support
