// A PDB's container: signature, stream directory, identity, named streams, the string table, the
// module list.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/pdb_text.h"

namespace test_support {

using namespace builders;
namespace {

constexpr char kRefused[] = "Failed to read PDB Root Stream";

TEST(PdbContainerTest, RefusesOtherFiles) {
  SmallPdb pdb;
  std::string bytes = pdb.build().bytes;
  EXPECT_EQ(convert(std::string()).failure, "Failed to load PDB file");
  for (const size_t at : {0, 26, 29, 31}) {
    std::string other = bytes;
    other[at] ^= 1;
    const Conversion result = convert(other);
    EXPECT_EQ(result.failure, kRefused);
    EXPECT_EQ(result.messages, "Input file has an invalid signature\n");
  }
}

// Streams with pages in any order, and directories that need several pages and index pages.
TEST(PdbContainerTest, ReadsEveryLayout) {
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

TEST(PdbContainerTest, JudgesTheDirectorysPages) {
  SmallPdb pdb(512);
  const MsfFile file = pdb.build();
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
  // A page of the directory, a count of streams that cannot be, a product that 32 bits would wrap.
  const size_t list = size_t{file.index_pages[0]} * 512;
  for (const auto& [at, value] : std::vector<std::pair<size_t, uint32_t>>{
           {list, beyond},
           {list, 0x800000},
           {file.directory_offset(0), static_cast<uint32_t>(file.bytes.size() / 4 + 1)}}) {
    const Conversion result = damaged(at, value);
    EXPECT_EQ(result.failure, kRefused) << at;
    EXPECT_EQ(result.messages, "");
  }
  // Pages of streams are judged when they are read.
  std::string bytes = file.bytes;
  put_u32(bytes, file.directory_offset(4 + 4 * get_u32(bytes, file.directory_offset(0))), beyond);
  EXPECT_EQ(convert(bytes).failure, "Requesting offset outside of page range");
}

TEST(PdbContainerDeathTest, DiesOfImpossibleDirectories) {
  SmallPdb pdb;
  const std::string bytes = pdb.build().bytes;
  const auto damaged = [&](size_t at, uint32_t value) {
    std::string other = bytes;
    put_u32(other, at, value);
    return other;
  };
  EXPECT_DEATH(convertAlone(damaged(32, 0)), "");  // SIGFPE, which sanitizers take for themselves
  EXPECT_DEATH(convertAlone(damaged(44, 0)), "");
}

// The path of the one file is printed only when /NAMES was found.
Conversion withNamedStreams(const std::function<void(SmallPdb&)>& change) {
  SmallPdb pdb;
  pdb.add_module("a.obj").file(pdb.names.add("a.cc"));
  pdb.lay_out();
  change(pdb);
  pdb.msf.set_stream(1, pdb.info.bytes());
  return convert(pdb);
}

TEST(PdbContainerTest, FindsNamedStreams) {
  const struct {
    const char* what;
    std::vector<std::pair<std::string, uint32_t>> added;
    uint32_t capacity, present_words;
  } found[] = {{"as it is", {}, 0, 0},
               {"one word, eight slots", {}, 8, 1},
               {"forty slots in two words", {}, 40, 2},
               {"first of two", {{"/NAMES", 999}}, 0, 0}};
  for (const auto& c : found) {
    const Conversion result = withNamedStreams([&](SmallPdb& p) {
      p.info.capacity = c.capacity;
      p.info.present_words = c.present_words;
      p.info.named_streams.insert(p.info.named_streams.end(), c.added.begin(), c.added.end());
    });
    EXPECT_EQ(result.lines("FILE"), "FILE 1 a.cc\n") << c.what << ": " << result.failure;
    EXPECT_EQ(result.messages, "") << c.what;
  }
  const auto called = [](const char* name) {
    return withNamedStreams([&](SmallPdb& p) { p.info.named_streams[0].first = name; });
  };
  EXPECT_EQ(called("/names").lines("FILE"), "FILE 1 a.cc\n");
  const Conversion none = called("/OTHER");
  EXPECT_EQ(none.lines("FILE"), "");
  EXPECT_EQ(none.messages.find("Warning: Could not find /NAMES stream: /"), 0u);

  const Conversion deleted = withNamedStreams([](SmallPdb& p) { p.info.deleted_bits = {0x10, 0}; });
  EXPECT_EQ(deleted.lines("FILE"), "FILE 1 a.cc\n");
  EXPECT_EQ(deleted.messages, "Warning: deleted names bitset is not empty, unsupported\n");

  const Conversion invalid = withNamedStreams([](SmallPdb& p) {
    p.info.capacity = 64;
    p.info.present_words = 1;
  });
  EXPECT_EQ(invalid.failure, kRefused);
  EXPECT_EQ(invalid.messages, "Invalid name index\n");
}

// The string table "abcd", without the NUL behind it, of which the buckets call 1 and 0x10000
// names.
TEST(PdbContainerTest, RefusesANameOutsideOnlyWhenItIsAskedFor) {
  const auto named = [](uint32_t offset) {
    SmallPdb pdb;
    pdb.add_module("a.obj").file(offset);
    pdb.names.add("");  // makes the stream
    pdb.lay_out();
    pdb.msf.set_stream(
        pdb.info.named_streams.at(0).second,
        Bytes().u32(0xEFFEEFFE).u32(1).u32(4).text("abcd").u32(2).u32(1).u32(0x10000).str());
    return convert(pdb);
  };
  EXPECT_EQ(named(2).text.find("FILE"), std::string::npos);
  EXPECT_EQ(named(1).lines("FILE"), "FILE 1 bcd\x02\n") << "its end is a byte of the bucket count";
  EXPECT_EQ(named(0x10000).failure, "Invalid name stream");
}

}  // namespace
}  // namespace test_support
