// --identify: what files are, without a conversion.

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "builders/far_msf.h"
#include "tests/support/program.h"

namespace test_support {
namespace {

using namespace std::string_literals;

// The line without its path.
std::string identity_of(const std::string& path, int status = 0) {
  const Result result = run({"--identify", path});
  EXPECT_EQ(result.status, status) << result.out;
  EXPECT_EQ(result.err, "");
  return result.out.substr(std::min(result.out.find(",\"kind\""), result.out.size()));
}

using IdentifyTest = ProgramTest;

TEST_F(IdentifyTest, ReadsIdentitiesOfAllForms) {
  const std::string module = "\"debug_file\":\"engine64.pdb\",\"debug_id\":\"" + kEngineId + "\",";
  const std::string image =
      "\"code_file\":\"engine64.exe\",\"code_id\":\"7EB27A1AF000\",\"image_size\":61440,"
      "\"time_stamp\":2125625882,";
  const std::string none =
      "\"code_file\":null,\"code_id\":null,\"image_size\":null,\"time_stamp\":null,";
  const std::string tree = "\"tree_path\":\"engine64.pdb/" + kEngineId + "/engine64.sym";
  const std::string machine = "\"architecture\":\"x86_64\",";
  const std::string symb = temp_.file("a", run({"-b", kFixtures + "engine64.pdb"}).out);
  const std::pair<std::string, std::string> cases[] = {
      {kFixtures + "engine64.pdb", "pdb\"," + machine + module + none + tree + "\"}\n"},
      {kFixtures + "engine64.exe", "image\"," + machine + module + image + tree + "\"}\n"},
      {kFixtures + "engine64.sym", "symbol_text\"," + machine + module + image + tree + "\"}\n"},
      {kFixtures + "engine64.std.sym",
       "symbol_text\"," + machine + module + image + tree + "\"}\n"},
      {symb, "symb\"," + machine + module + image + tree + "b\"}\n"},
  };
  for (const auto& [path, expected] : cases) {
    EXPECT_EQ(identity_of(path), ",\"kind\":\"" + expected);
  }
}

// A PDB of 12 GiB with everything far from the start, and all page sizes.
TEST_F(IdentifyTest, ReadsPdbsOfAnySize) {
  for (const uint32_t page : {512u, 4096u, 65536u}) {
    PdbBuilder pdb(page);
    pdb.dbi.machine = 0xAA64;
    for (int i = 0; i < 300; ++i) pdb.msf.add_stream("x");
    FarMsf far(pdb.build().bytes);
    far.move_directory(12ull << 30);
    for (uint32_t i = 0; i < far.stream_count(); ++i) far.move_stream(i, 8ull << 30);
    const std::string path = temp_.file("a.pdb", "");
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    far.write(fd);
    close(fd);
    EXPECT_THAT(identity_of(path), HasSubstr("\"architecture\":\"arm64\",\"debug_file\":\"a.pdb\","
                                             "\"debug_id\":\"" +
                                             debug_id({}, 1) + "\""));
  }
}

TEST_F(IdentifyTest, NamesEveryKind) {
  // The metadata root with its version, then two streams, the second one with the identifier.
  Bytes portable;
  portable.text("BSJB").u32(0x10001).u32(0).u32(12).zstr("PDB v1.0").fill(3).u16(0).u16(2);
  portable.u32(100).u32(4).zstr("#Strings").align(4).u32(72).u32(20).zstr("#Pdb").align(4);
  portable.fill(72 - 68).u32(0x11223344).fill(12, 0x55).u32(7);
  const struct {
    std::string bytes;
    std::string expected;
  } cases[] = {
      {managed_pdb(), "managed_pdb\",\"architecture\":\"x86_64"},
      {type_server_pdb(), "pdb_without_types"},
      {fastlink_pdb(), "pdb_without_types"},
      {PeBuilder().directory(14, 0x2000, 72).build(), "managed_image"},
      {PeBuilder(false).build(), "image\",\"architecture\":\"x86\",\"debug_file\":null"},
      {portable.str(),
       "portable_pdb\",\"architecture\":null,\"debug_file\":\"a\",\"debug_id\":\"11223344"
       "5555555555555555555555551\""},
      // Identities that are cut short or that leave the tree.
      {managed_pdb().substr(0, 100),
       "pdb\",\"architecture\":null,\"debug_file\":\"a\",\"debug_id\":null"},
      {"MODULE windows x86 A1", "symbol_text\",\"architecture\":null"},
      {"MODULE windows x86 A1 a\nINFO CODE_ID 5F001234 b\n",
       "symbol_text\",\"architecture\":\"x86\",\"debug_file\":\"a\",\"debug_id\":\"A1\","
       "\"code_file\":\"b\",\"code_id\":\"5F001234\",\"image_size\":null"},
      {"MODULE windows x86 A1 ../a\n",
       "symbol_text\",\"architecture\":\"x86\",\"debug_file\":\"../a\""},
      {"SYMB\3\0\0\0"s + std::string(200, '\xFF'), "symb\",\"architecture\":null"},
  };
  const auto expect_kind = [&](const std::string& bytes, const std::string& expected) {
    EXPECT_THAT(identity_of(temp_.file("a", bytes)), HasSubstr("\"kind\":\"" + expected));
  };
  for (const auto& c : cases) expect_kind(c.bytes, c.expected);
  for (const TestCase& c : test_cases("other_files.txt")) {
    expect_kind(c.input, c.expected.substr(0, c.expected.find(" | ")));
  }
}

// All files are named, and the status is that of the worst one.
TEST_F(IdentifyTest, ReportsFilesOfNoKnownKind) {
  const std::string text = temp_.file("a\"\n\xFF\xC3\xA9", "MODULE a b C d\n");
  const Result result =
      run({"--identify", temp_.file("empty", ""), temp_ / "missing", temp_.path(), text});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, HasSubstr("/empty\",\"kind\":\"unknown\""));
  EXPECT_THAT(result.out, HasSubstr("null,\"error\":\"No such file or directory\"}\n"));
  EXPECT_THAT(result.out, HasSubstr("null,\"error\":\"not a regular file\"}\n"));
  EXPECT_THAT(result.out, HasSubstr("/a\\\"\\n\xEF\xBF\xBD\xC3\xA9\",\"kind\":\"symbol_text\""));
  EXPECT_EQ(run({"--identify"}).status, 1);
  EXPECT_EQ(run({"--identify", text, "-s", temp_.path()}).status, 1);
  EXPECT_EQ(run({"--identify", text}, {.stdout_path = "/dev/full"}).status, 1);
}

}  // namespace
}  // namespace test_support
