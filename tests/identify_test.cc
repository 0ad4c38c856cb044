// --identify: what files are, without a conversion.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "builders/bytes.h"
#include "builders/far_msf.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "tests/support/process.h"

namespace {

using namespace builders;
using namespace test_support;
using namespace std::string_literals;
using ::testing::HasSubstr;

const std::string kData = SYMFORGE_FIXTURES "/";
const std::string kEngine = "515D2ED965ADFF5D4C4C44205044422E1";

// The line without its path.
std::string identity_of(const std::string& path, int status = 0) {
  const Result result = run({"--identify", path});
  EXPECT_EQ(result.status, status) << result.out;
  EXPECT_EQ(result.err, "");
  return result.out.substr(std::min(result.out.find(",\"kind\""), result.out.size()));
}

TEST(IdentifyTest, ReadsIdentitiesOfAllForms) {
  const TemporaryDirectory temp;
  const std::string module = "\"debug_file\":\"engine64.pdb\",\"debug_id\":\"" + kEngine + "\",";
  const std::string image =
      "\"code_file\":\"engine64.exe\",\"code_id\":\"7EB27A1AF000\",\"image_size\":61440,"
      "\"time_stamp\":2125625882,";
  const std::string none =
      "\"code_file\":null,\"code_id\":null,\"image_size\":null,\"time_stamp\":null,";
  const std::string tree = "\"tree_path\":\"engine64.pdb/" + kEngine + "/engine64.sym";
  const std::string machine = "\"architecture\":\"x86_64\",";
  const std::string symb = temp.file("a", run({"-b", kData + "engine64.pdb"}).out);
  const std::pair<std::string, std::string> cases[] = {
      {kData + "engine64.pdb", "pdb\"," + machine + module + none + tree + "\"}\n"},
      {kData + "engine64.exe", "image\"," + machine + module + image + tree + "\"}\n"},
      {kData + "engine64.sym", "symbol_text\"," + machine + module + image + tree + "\"}\n"},
      {kData + "engine64.std.sym", "symbol_text\"," + machine + module + image + tree + "\"}\n"},
      {symb, "symb\"," + machine + module + image + tree + "b\"}\n"},
  };
  for (const auto& [path, expected] : cases) {
    EXPECT_EQ(identity_of(path), ",\"kind\":\"" + expected);
  }
}

// A PDB of 12 GiB with everything far from the start, and all page sizes.
TEST(IdentifyTest, ReadsPdbsOfAnySize) {
  const TemporaryDirectory temp;
  for (const uint32_t page : {512u, 4096u, 65536u}) {
    PdbBuilder pdb(page);
    pdb.dbi.machine = 0xAA64;
    for (int i = 0; i < 300; ++i) pdb.msf.add_stream("x");
    FarMsf far(pdb.build().bytes);
    far.move_directory(12ull << 30);
    for (uint32_t i = 0; i < far.stream_count(); ++i) far.move_stream(i, 8ull << 30);
    const std::string path = temp.file("a.pdb", "");
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    far.write(fd);
    close(fd);
    EXPECT_THAT(identity_of(path), HasSubstr("\"architecture\":\"arm64\",\"debug_file\":\"a.pdb\","
                                             "\"debug_id\":\"" +
                                             debug_id({}, 1) + "\""));
  }
}

TEST(IdentifyTest, NamesEveryKind) {
  PdbBuilder managed(512);
  managed.dbi.debug.token_rid_map = 1;
  PdbBuilder server(512);
  server.types.add(0x1515, Bytes().fill(20).zstr("vc140.pdb").str());
  PdbBuilder fast(512);
  fast.info.named_streams = {{"/names", 5}, {"/LinkInfo", 6}};
  fast.lay_out();
  fast.msf.set_stream(1, fast.info.bytes() + Bytes().u32(0).u32(20140508).text("MINI").str());
  // The metadata root with its version, then two streams, the second one with the identifier.
  const std::string portable = Bytes()
                                   .text("BSJB")
                                   .u32(0x10001)
                                   .u32(0)
                                   .u32(12)
                                   .zstr("PDB v1.0")
                                   .fill(3)
                                   .u16(0)
                                   .u16(2)
                                   .u32(100)
                                   .u32(4)
                                   .zstr("#Strings")
                                   .align(4)
                                   .u32(72)
                                   .u32(20)
                                   .zstr("#Pdb")
                                   .align(4)
                                   .fill(72 - 68)
                                   .u32(0x11223344)
                                   .fill(12, 0x55)
                                   .u32(7)
                                   .str();
  const struct {
    std::string bytes;
    std::string expected;
  } cases[] = {
      {managed.build().bytes, "managed_pdb\",\"architecture\":\"x86_64"},
      {server.build().bytes, "pdb_without_types"},
      {fast.build().bytes, "pdb_without_types"},
      {PeBuilder().directory(14, 0x2000, 72).build(), "managed_image"},
      {PeBuilder(false).build(), "image\",\"architecture\":\"x86\",\"debug_file\":null"},
      {"Microsoft MSFZ Container", "compressed_pdb"},
      {portable,
       "portable_pdb\",\"architecture\":null,\"debug_file\":\"a\",\"debug_id\":\"11223344"
       "5555555555555555555555551\""},
      {"Microsoft C/C++ program database 2.00\r\n\x1AJG", "pdb_2.00"},
      {"PK\3\4", "zip"},
      {"MSCF\0\0\0\0"s, "cab"},
      {"\x1F\x8B\x08", "gzip"},
      {"\x28\xB5\x2F\xFD", "zstd"},
      {"\x7F"
       "ELF\2\1\1\0\0\0\0\0\0\0\0\0\3\0\xB7\0"s,
       "elf\",\"architecture\":\"arm64"},
      {"\xFE\xED\xFA\xCE\0\0\0\x12"s, "mach_o\",\"architecture\":\"ppc\""},
      {"\xCF\xFA\xED\xFE\x0C\0\0\1"s, "mach_o\",\"architecture\":\"arm64"},
      // Identities that are cut short or that leave the tree.
      {managed.build().bytes.substr(0, 100),
       "pdb\",\"architecture\":null,\"debug_file\":\"a\",\"debug_id\":null"},
      {"MODULE windows x86 A1", "symbol_text\",\"architecture\":null"},
      {"MODULE windows x86 A1 ../a\n",
       "symbol_text\",\"architecture\":\"x86\",\"debug_file\":\"../a\""},
      {"SYMB\3\0\0\0"s + std::string(200, '\xFF'), "symb\",\"architecture\":null"},
  };
  const TemporaryDirectory temp;
  for (const auto& c : cases) {
    EXPECT_THAT(identity_of(temp.file("a", c.bytes)), HasSubstr("\"kind\":\"" + c.expected));
  }
}

// All files are named, and the status is that of the worst one.
TEST(IdentifyTest, ReportsFilesOfNoKnownKind) {
  const TemporaryDirectory temp;
  const std::string text = temp.file("a\"\n\xFF\xC3\xA9", "MODULE a b C d\n");
  const Result result =
      run({"--identify", temp.file("empty", ""), temp / "missing", temp.path(), text});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, HasSubstr("/empty\",\"kind\":\"unknown\""));
  EXPECT_THAT(result.out, HasSubstr("null,\"error\":\"No such file or directory\"}\n"));
  EXPECT_THAT(result.out, HasSubstr("null,\"error\":\"not a regular file\"}\n"));
  EXPECT_THAT(result.out, HasSubstr("/a\\\"\\n\xEF\xBF\xBD\xC3\xA9\",\"kind\":\"symbol_text\""));
  EXPECT_EQ(run({"--identify"}).status, 1);
  EXPECT_EQ(run({"--identify", text, "-s", temp.path()}).status, 1);
  EXPECT_EQ(run({"--identify", text}, {.stdout_path = "/dev/full"}).status, 1);
}

}  // namespace
