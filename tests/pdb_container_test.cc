// A PDB's container: signature, stream directory, identity, named streams, the string table, the
// module list.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "symforge/src/NameStream.h"
#include "tests/pdb_text.h"

namespace test_support {

using namespace builders;
namespace {

using google_breakpad::pdb_exception;
using google_breakpad::pdb_recoverable_exception;

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
    std::function<void(SmallPdb&)> change;
    const char* files;
    const char* messages;
  } cases[] = {
      {"as it is", [](SmallPdb&) {}, "FILE 1 a.cc\n", ""},
      {"lower case", [](SmallPdb& p) { p.info.named_streams[0].first = "/names"; }, "FILE 1 a.cc\n",
       ""},
      {"one word, eight slots",
       [](SmallPdb& p) {
         p.info.capacity = 8;
         p.info.present_words = 1;
       },
       "FILE 1 a.cc\n", ""},
      {"first of two",
       [](SmallPdb& p) {
         p.info.named_streams.push_back({"/NAMES", 999});
       },
       "FILE 1 a.cc\n", ""},
      {"deleted slots",
       [](SmallPdb& p) {
         p.info.deleted_bits = {0x10, 0};
       },
       "FILE 1 a.cc\n", "Warning: deleted names bitset is not empty, unsupported\n"},
      {"forty slots in two words",
       [](SmallPdb& p) {
         p.info.capacity = 40;
         p.info.present_words = 2;
       },
       "FILE 1 a.cc\n", ""},
  };
  for (const auto& c : cases) {
    const Conversion result = withNamedStreams(c.change);
    EXPECT_EQ(result.lines("FILE"), c.files) << c.what << ": " << result.failure;
    EXPECT_EQ(result.messages, c.messages) << c.what;
  }
  const Conversion none =
      withNamedStreams([](SmallPdb& p) { p.info.named_streams[0].first = "/OTHER"; });
  EXPECT_EQ(none.lines("FILE"), "");
  EXPECT_EQ(none.messages.find("Warning: Could not find /NAMES stream: /"), 0u);

  const Conversion invalid = withNamedStreams([](SmallPdb& p) {
    p.info.capacity = 64;
    p.info.present_words = 1;
  });
  EXPECT_EQ(invalid.failure, kRefused);
  EXPECT_EQ(invalid.messages, "Invalid name index\n");
}

// The string table alone, over a stream of the given bytes cut into two pages that lie apart.
class NamesTest : public testing::Test {
 protected:
  google_breakpad::NameStream& load(const Bytes& bytes, uint32_t page = 64) {
    MsfBuilder msf(page);
    const uint32_t number = msf.add_stream(bytes.str());
    if (bytes.size() > page) msf.split(number, 1);
    m_file = msf.build();
    m_path = m_folder.file("f", m_file.bytes);
    EXPECT_TRUE(m_mapping.Map(m_path.c_str()));
    m_stream.size = static_cast<uint32_t>(bytes.size());
    m_stream.pageIndices = m_file.stream_pages[number];
    m_names.load(m_stream, {m_mapping.base(), m_mapping.length(), page});
    return m_names;
  }
  static Bytes header(uint32_t area) { return Bytes().u32(0xEFFEEFFE).u32(1).u32(area); }

 private:
  TemporaryDirectory m_folder;
  std::string m_path;
  MsfFile m_file;
  google_breakpad::MMapWrapper m_mapping;
  google_breakpad::StreamPair m_stream{0};
  google_breakpad::NameStream m_names;
};

TEST_F(NamesTest, RefusesANameOutsideOnlyWhenItIsAskedFor) {
  auto& names = load(header(4).text("abcd").u32(2).u32(1).u32(0x10000));
  std::string_view name;
  EXPECT_FALSE(names.find(2, name));
  EXPECT_THROW(names.find(0x10000, name), pdb_exception);
  EXPECT_TRUE(names.find(1, name)) << "its end is a byte of the bucket count";
  EXPECT_EQ(name, "bcd\x02");
}

}  // namespace
}  // namespace test_support
