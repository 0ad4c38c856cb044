// The container of a PDB: signature and stream directory.

#include "symforge/src/msf/msf_file.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

constexpr char kRefused[] = "Failed to read PDB Root Stream";

TEST(MsfFileTest, RefusesOtherFiles) {
  SmallPdb pdb;
  std::string bytes = pdb.build().bytes;
  EXPECT_EQ(convert(std::string()).failure, "Failed to load PDB file");
  EXPECT_EQ(convert("M").failure, kRefused);
  for (const size_t at : {0, 26, 29, 31}) {
    std::string other = bytes;
    other[at] ^= 1;
    const Conversion result = convert(other);
    EXPECT_EQ(result.failure, kRefused);
    EXPECT_EQ(result.messages, "Input file has an invalid signature\n");
  }
}

// Streams with pages in any order, and directories with several pages and index pages.
TEST(MsfFileTest, ReadsEveryLayout) {
  const auto fill = [](SmallPdb& pdb, size_t modules) {
    for (size_t i = 0; i < modules; ++i) {
      const std::string name = "function" + std::to_string(i);
      ModuleBuilder& module = pdb.add_module("m.obj");
      const uint32_t file = module.file(pdb.names.add("C:\\" + name + ".cc"));
      const auto at = static_cast<uint32_t>(0x10 * i);
      module.proc({.name = name, .offset = at, .length = 9, .type = pdb.type}).end();
      module.lines(1, at, 9, file, {{0, 1}, {4, 2}});
    }
  };
  for (const auto& [modules, page] : {std::pair<size_t, uint32_t>(3, 64), {40, 256}, {400, 1024}}) {
    SmallPdb plain;
    fill(plain, modules);
    const std::string expected = convert(plain).text;
    EXPECT_NE(expected.find("FUNC 1:1020 9 0 function2()\n1020 4 1 3\n1024 5 2 3\n"),
              std::string::npos);
    for (const PageOrder order : {PageOrder::kReversed, PageOrder::kInterleaved}) {
      SmallPdb pdb(page);
      fill(pdb, modules);
      pdb.msf.order(order).reverse_directory();
      EXPECT_EQ(convert(pdb).text, expected) << modules;
    }
  }
}

TEST(MsfFileTest, ChecksTheDirectorysPages) {
  SmallPdb pdb(512);
  const builders::MsfFile file = pdb.build();
  const auto damaged = [&](size_t at, uint32_t value) {
    std::string bytes = file.bytes;
    put_u32(bytes, at, value);
    return convert(bytes);
  };
  const uint32_t beyond = static_cast<uint32_t>(file.bytes.size() / 512);
  const Conversion index = damaged(52, beyond);
  EXPECT_EQ(index.failure, kRefused);
  EXPECT_EQ(index.messages, "[0] Root index: " + std::to_string(beyond) +
                                " * 512: " + std::to_string(beyond * 512) +
                                " >= " + std::to_string(file.bytes.size()) + "\n");
  // A page of the directory, an impossible number of streams, a product that wraps in 32 bits.
  const size_t list = size_t{file.index_pages[0]} * 512;
  for (const auto& [at, value] : std::vector<std::pair<size_t, uint32_t>>{
           {list, beyond},
           {list, 0x800000},
           {file.directory_offset(0), static_cast<uint32_t>(file.bytes.size() / 4 + 1)}}) {
    const Conversion result = damaged(at, value);
    EXPECT_EQ(result.failure, kRefused) << at;
    EXPECT_EQ(result.messages, "");
  }
  // Page numbers of streams are checked when the stream is read.
  std::string bytes = file.bytes;
  put_u32(bytes, file.directory_offset(4 + 4 * get_u32(bytes, file.directory_offset(0))), beyond);
  EXPECT_EQ(convert(bytes).failure, "Requesting offset outside of page range");
}

TEST(MsfFileTest, RefusesHeadersWithoutPageSize) {
  SmallPdb pdb;
  std::string bytes = pdb.build().bytes;
  EXPECT_EQ(convert(bytes.substr(0, 40)).failure, kRefused);
  put_u32(bytes, 32, 0);
  EXPECT_EQ(convert(bytes).failure, kRefused);
}

// The directory's last word is the last of as many pages as one index page can list.
TEST(MsfFileTest, ReadsADirectoryThatFillsItsPages) {
  constexpr uint32_t kPage = 64;
  constexpr uint32_t kWords = kPage / 4 * (kPage / 4);
  PdbBuilder pdb(kPage);
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x100});
  pdb.add_module("m").proc({.name = "f", .length = 16});
  pdb.lay_out();
  const std::string plain = convert(PdbBuilder(pdb).build().bytes).text;
  // Streams of no bytes take one word of the directory each.
  const size_t used = [&] {
    PdbBuilder copy(pdb);
    const MsfFile file = copy.build();
    return size_t{get_u32(file.bytes, 44)} / 4;
  }();
  ASSERT_LT(used, kWords);
  for (size_t i = used; i < kWords; ++i) pdb.msf.add_stream({});
  const std::string bytes = pdb.build().bytes;
  ASSERT_EQ(get_u32(bytes, 44), 4 * kWords);
  EXPECT_EQ(convert(bytes).text, plain);
  EXPECT_NE(plain.find("FUNC 1:1000 10 0 f"), std::string::npos);
}

TEST(MsfFileDeathTest, AbortsOnImpossibleDirectories) {
  SmallPdb pdb;
  const std::string bytes = pdb.build().bytes;
  const auto damaged = [&](size_t at, uint32_t value) {
    std::string other = bytes;
    put_u32(other, at, value);
    return other;
  };
  EXPECT_DEATH(convertAlone(damaged(44, 0)), "");
}

}  // namespace
}  // namespace test_support
