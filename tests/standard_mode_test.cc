// Standard mode as a process: exit statuses, messages, images found by their content, and batches
// that continue after errors.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "builders/bytes.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "tests/support/lines.h"
#include "tests/support/process.h"

namespace {

using namespace builders;
using namespace test_support;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

const std::string kData = SYMFORGE_FIXTURES;
const std::string kText =
    "MODULE windows x86_64 ABC1 a.pdb\n"
    "INFO CODE_ID 5F000000 a.exe\n"
    "FUNC 1000 10 0 main\n";
const std::string kNoImage = "no image found: no code identifier and no unwind rules of one";

Result run_standard(std::vector<std::string> args, const RunOptions& options = {}) {
  args.insert(args.begin(), "--standard");
  return run(args, options);
}

std::string make_pdb(uint32_t number) {
  PdbBuilder pdb(512);
  pdb.info.guid = {.data1 = number};
  pdb.dbi.age = 1;
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x1000, .raw_size = 0x1000});
  pdb.add_module("m.obj").proc({.name = "f", .offset = 0, .length = 16}).end();
  return pdb.build().bytes;
}

std::string make_pe(uint32_t number, bool pe32_plus = true) {
  PeBuilder pe(pe32_plus);
  pe.codeview({.data1 = number}, 1, "C:\\out\\linked.pdb").time_stamp(0x5F000000 + number);
  return pe.build();
}

// Any fault of an input: status 1, one line that names it, no signal.
TEST(StandardStatusTest, IsOneForInputsThatFail) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  const std::string pdb = make_pdb(1);
  std::string page_size = pdb;
  page_size.replace(32, 4, std::string(4, '\0'));
  const struct {
    std::string input;
    std::string message;
  } cases[] = {
      {temp / "missing", "No such file or directory"},
      {temp.file("empty.pdb", ""), "Failed to load PDB file"},
      {temp.folder("folder"), "Failed to load PDB file"},
      {temp.file("no.pdb", "neither"),
       "Failed to read PDB Root Stream \\(Input file has an invalid signature\\)"},
      {temp.file("cut.pdb", pdb.substr(0, pdb.size() / 2)), ".+"},
      {temp.file("page_size.pdb", page_size), ".+"},
      {temp.file("module.sym", "MODULE windows\n"), "the text has no complete MODULE line"},
      {temp.file("damaged.symb", "SYMB" + std::string(200, '\xFF')), "failed to parse symb file"},
      {temp.file("steers\x1B[2J\n.pdb", ""), "Failed to load PDB file"},
      {temp.file("up.sym", "MODULE a b X ../a.pdb\n"), "failed to create .*/X: Invalid argument"},
  };
  for (const auto& c : cases) {
    const Result result = run_standard({c.input, tree});
    EXPECT_EQ(result.status, 1) << c.input;
    EXPECT_THAT(result.err, MatchesRegex("symforge: [^\n\x1B]+: " + c.message + "\n"));
    EXPECT_THAT(result.err, StartsWith("symforge: " + c.input.substr(0, c.input.find('\x1B'))));
    EXPECT_THAT(list_tree(tree), IsEmpty());
  }
}

// Files that are not converted: one line that says what they are, in default mode after its
// message.
TEST(StandardStatusTest, IsOneForOtherKindsOfFiles) {
  PdbBuilder managed(512);
  managed.dbi.debug.token_rid_map = 1;
  PdbBuilder server(512);
  server.types.add(0x1515, Bytes().fill(20).zstr("C:\\obj\\vc140.pdb").str());
  PdbBuilder fast(512);
  fast.lay_out();
  fast.msf.set_stream(1, fast.info.bytes() + Bytes().u32(0).u32(20140508).text("MINI").str());
  using namespace std::string_literals;
  const struct {
    std::string bytes;
    std::string message;
    bool in_default_mode = true;
  } cases[] = {
      {"Microsoft MSFZ Container\r\n\x1A", "compressed PDB"},
      {"BSJB\1\0\1\0"s, "portable PDB"},
      {"Microsoft C/C++ program database 2.00\r\n\x1AJG", "format 2.00"},
      {"PK\3\4", "zip archive"},
      {"MSCF\0\0\0\0"s, "cabinet"},
      {"\x1F\x8B\x08", "gzip"},
      {"\x28\xB5\x2F\xFD", "zstd"},
      {"\x7F"
       "ELF\2",
       "ELF"},
      {"\xCF\xFA\xED\xFE", "Mach-O"},
      {"\xCA\xFE\xBA\xBE\0\0\0\2"s, "Mach-O"},
      {make_pe(1), "image"},
      {managed.build().bytes, "managed"},
      {server.build().bytes, "type server C:\\obj\\vc140.pdb; link", false},
      {fast.build().bytes, "/DEBUG:FASTLINK", false},
  };
  const TemporaryDirectory temp;
  for (const auto& c : cases) {
    const std::string path = temp.file("a.pdb", c.bytes);
    const Result result = run_standard({path});
    EXPECT_EQ(result.status, 1) << c.message;
    EXPECT_THAT(result.err, MatchesRegex("symforge: [^\n:]+: th[^\n]+\n"));
    EXPECT_THAT(result.err, HasSubstr(c.message));
    if (!c.in_default_mode) continue;
    const Result by_default = run({path});
    EXPECT_EQ(by_default.status, 1) << c.message;
    EXPECT_THAT(by_default.err, HasSubstr("Exception caught: "));
    EXPECT_THAT(by_default.err, HasSubstr("\nsymforge: " + path + ": this "));
    EXPECT_THAT(by_default.err, HasSubstr(c.message));
  }
  // Java's classes begin like Mach-O files for several machines.
  const std::string java = temp.file("a.pdb", "\xCA\xFE\xBA\xBE\0\0\0\x34"s);
  EXPECT_THAT(run_standard({java}).err, HasSubstr("Failed to read PDB Root Stream"));
}

TEST(StandardStatusTest, IsZeroForNativeFunctionsOfManagedPdbs) {
  PdbBuilder pdb(512);
  pdb.dbi.debug.token_rid_map = 1;
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x1000});
  pdb.add_module("m.obj").proc({.name = "native", .length = 16}).end();
  const TemporaryDirectory temp;
  const Result result = run_standard({temp.file("a.pdb", pdb.build().bytes)});
  EXPECT_THAT(result.out, HasSubstr("FUNC 1000 10 0 native\n"));
}

// PDBs truncated at every page or with their first bytes changed, which trigger assertions, range
// checks and exceptions.
TEST(StandardStatusTest, IsNeverASignal) {
  const TemporaryDirectory temp;
  const std::string pdb = read_file(kData + "/engine64.pdb");
  for (size_t i = 0; i < 120; ++i) {
    std::string damaged = pdb;
    if (i % 2 == 0) damaged.resize(pdb.size() * i / 120);
    for (size_t at = i * 37; at < damaged.size(); at += 331 + i) damaged[at] ^= '\x5A';
    const Result result = run_standard({temp.file("damaged.pdb", damaged)});
    EXPECT_EQ(result.signal, 0) << i;
    if (result.status == 0) continue;
    EXPECT_EQ(result.status, 1) << i;
    EXPECT_THAT(result.err, MatchesRegex("symforge: " + (temp / "damaged.pdb") + ": [^\n]+\n"));
    EXPECT_THAT(result.err, Not(HasSubstr("memory access"))) << i;
  }
}

// The stream of the module ends inside the name of its second function.
TEST(StandardStatusTest, IsZeroForAFunctionWithHalfAName) {
  const TemporaryDirectory temp;
  PdbBuilder pdb(512);
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x1000, .raw_size = 0x1000});
  Bytes half;
  half.u16(300).u16(kGProc32).fill(28).u32(0x20).u16(1).u8(0).text("half");
  pdb.add_module("m.obj").proc({.name = "f", .length = 16}).raw_symbols(half.str());
  const Result result = run_standard({temp.file("a.pdb", pdb.build().bytes)});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\nFUNC 1000 10 0 f\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("half")));
}

TEST(StandardStatusTest, IsOneForResultsThatCannotBeWritten) {
  const TemporaryDirectory temp;
  const std::string text = temp.file("a.sym", kText + std::string(100000, 'x'));
  EXPECT_EQ(run_standard({text}, {.stdout_path = "/dev/full"}).err,
            "symforge: " + text + ": failed to write: No space left on device\n");

  const std::string tree = temp.folder("tree");
  const Result full = run_standard({text, tree}, {.file_size = 5000});
  EXPECT_EQ(full.status, 1);
  EXPECT_EQ(full.err, "symforge: " + text + ": failed to write: File too large\n");

  // The link of a code identifier: an existing link is accepted if its target is the same.
  EXPECT_EQ(run_standard({text, tree}).err, "");
  EXPECT_EQ(run_standard({text, tree}).status, 0);
  std::filesystem::remove(tree + "/a.pdb/5F000000");
  std::filesystem::create_symlink("OTHER", tree + "/a.pdb/5F000000");
  const Result taken = run_standard({text, tree});
  EXPECT_EQ(taken.status, 1);
  EXPECT_THAT(taken.err, HasSubstr(": failed to link " + tree + "/a.pdb/5F000000: File exists\n"));
}

TEST(StandardStatusTest, IsOneWhenTheReaderClosesThePipe) {
  const TemporaryDirectory temp;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  const std::string text = temp.file("a.sym", kText);
  const Result result = run_standard({text}, {.stdout_fd = ends[1]});
  close(ends[1]);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "symforge: " + text + ": failed to write: Broken pipe\n");
}

// A text without a SYMB form leaves the existing target unchanged.
TEST(StandardStatusTest, IsOneForTextsWithoutSymbForm) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  temp.file("tree/a.pdb/X/a.symb", "old");
  const std::string text = "MODULE windows\nFUNC\nMODULE windows x X a.pdb\n";
  const Result result = run_standard({"-b", temp.file("a.sym", text), tree});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(read_file(tree + "/a.pdb/X/a.symb"), "old");
}

TEST(StandardTreeTest, AppliesTheUmask) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  ASSERT_EQ(run_standard({temp.file("a.sym", kText), tree}).err, "");
  EXPECT_EQ(list_tree(tree), (Tree{{"a.pdb", "dir 0755"},
                                   {"a.pdb/5F000000", "link ABC1"},
                                   {"a.pdb/ABC1", "dir 0755"},
                                   {"a.pdb/ABC1/a.sym", "file 0644 " + kText}}));
}

class StandardImageTest : public ::testing::Test {
 protected:
  // The second line of the result, or the message if there is none.
  std::string image_of(std::vector<std::string> args) {
    const Result result = run_standard(std::move(args));
    if (result.status != 0) return result.err;
    const std::string line = lines_with(result.out, {"INFO CODE_ID "});
    return line.empty() ? result.err : line;
  }

  TemporaryDirectory temp_;
  const std::string pdb_ = temp_.file("a.pdb", make_pdb(7));
};

TEST_F(StandardImageTest, IsFoundByItsContent) {
  const std::string none = "symforge: " + pdb_ + ": " + kNoImage + "\n";
  const struct {
    std::string name;
    std::string bytes;
    bool found;
  } cases[] = {
      {"a.exe", make_pe(7), true},    {"A.Node", make_pe(7), true},
      {"a", make_pe(7, false), true}, {"a.x.sys", make_pe(7, false), true},
      {"a.exe", make_pe(8), false},   {"a.exe", "MZ", false},
      {"b.exe", make_pe(7), false},   {"ab.exe", make_pe(7), false},
      {"a.exe", "no image", false},   {"a.exe", PeBuilder().build(), false},
  };
  for (const auto& c : cases) {
    const std::string image = temp_.file(c.name, c.bytes);
    const std::string line = "INFO CODE_ID 5F000007[0-9A-F]+ " + c.name + "\n";
    if (c.found) {
      EXPECT_THAT(image_of({pdb_}), MatchesRegex(line));
    } else {
      EXPECT_EQ(image_of({pdb_}), none) << c.name;
    }
    std::filesystem::remove(image);
  }
}

TEST_F(StandardImageTest, MustBelongToThePdbWhenItIsNamed) {
  const std::string other = "symforge: " + pdb_ + ": the image belongs to another PDB\n";
  EXPECT_THAT(image_of({"-e", temp_.file("x", make_pe(7)), pdb_}), StartsWith("INFO CODE_ID"));
  EXPECT_EQ(image_of({"--image", temp_.file("y", make_pe(8)), pdb_}), other);
  EXPECT_THAT(image_of({"-e", temp_ / "missing", pdb_}), HasSubstr("cannot be read"));
  ASSERT_EQ(mkfifo((temp_ / "fifo").c_str(), 0600), 0);
  EXPECT_THAT(image_of({"-e", temp_ / "fifo", pdb_}), HasSubstr("cannot be read"));
}

class StandardBatchTest : public ::testing::Test {
 protected:
  Result batch() { return run_standard({"-r", in_, tree_}, {.as_nobody = as_nobody_}); }
  // Paths of the symbol files in the tree.
  std::vector<std::string> results() const {
    std::vector<std::string> files;
    for (const auto& [path, content] : list_tree(tree_)) {
      if (content.starts_with("file")) files.push_back(path.substr(path.rfind('/') + 1));
    }
    return files;
  }

  TemporaryDirectory temp_;
  std::string in_ = temp_.folder("in");
  std::string tree_ = temp_.folder("tree");
  bool as_nobody_ = false;
};

TEST_F(StandardBatchTest, EndsWithZeroWhenEverythingWasConverted) {
  temp_.file("in/a.pdb", make_pdb(1));
  temp_.file("in/x/renamed.node", make_pe(1));
  temp_.file("in/b.pdb", make_pdb(2));
  temp_.file("in/b.exe", make_pe(2, false));
  temp_.file("in/copy/b.exe", make_pe(2, false));
  temp_.file("in/readme.txt", "no input");
  temp_.file("in/stray.ocx", make_pe(9));
  temp_.file("in/t.sym", kText);
  const Result result = batch();
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.err, Not(HasSubstr("stray")));
  EXPECT_THAT(result.err, Not(HasSubstr("copy")));
  EXPECT_THAT(results(), ::testing::ElementsAre("a.sym", "a.sym", "b.sym"));
}

TEST_F(StandardBatchTest, EndsWithTwoWhenSomeInputsFailed) {
  temp_.file("in/a.sym", kText);
  temp_.file("in/bad.pdb", "bad");
  temp_.file("in/lone.exe", make_pe(5));
  const Result result = batch();
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, StartsWith("symforge: " + in_ +
                                     "/lone.exe: PE file without matching pdb or sym file\n" +
                                     "symforge: " + in_ +
                                     "/bad.pdb: Failed to read PDB Root Stream (Input file has an "
                                     "invalid signature)\n" +
                                     "symforge: 1 converted, 2 failed (" + in_ + "/lone.exe, " +
                                     in_ + "/bad.pdb), 0 skipped, "));
  EXPECT_THAT(results(), ::testing::ElementsAre("a.sym"));
}

TEST_F(StandardBatchTest, EndsWithOneWhenNothingWasConverted) {
  EXPECT_EQ(batch().err, "symforge: " + in_ + ": no input\n");
  temp_.file("in/bad.pdb", "bad");
  EXPECT_EQ(batch().status, 1);
  EXPECT_EQ(run_standard({"-r", temp_ / "missing", tree_}).status, 1);
}

TEST_F(StandardBatchTest, ContinuesAfterUnreadableInputs) {
  chmod(temp_.path().c_str(), 0755);
  chmod(tree_.c_str(), 0777);
  as_nobody_ = true;
  temp_.file("in/a.sym", kText);
  std::filesystem::create_symlink("nowhere", in_ + "/dangling.pdb");
  temp_.folder("in/closed");
  chmod((in_ + "/closed").c_str(), 0);
  std::filesystem::create_directory_symlink("..", in_ + "/loop");
  std::filesystem::create_symlink("circle", in_ + "/circle");
  const Result result = batch();
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr("symforge: Failed to opendir " + in_ + "/closed: "));
  EXPECT_THAT(result.err, HasSubstr("symforge: Failed to stat " + in_ + "/dangling.pdb: "));
  EXPECT_THAT(result.err, HasSubstr("symforge: Failed to stat " + in_ + "/circle: "));
  EXPECT_THAT(results(), ::testing::ElementsAre("a.sym"));
}

// A symbol file that was made without its image becomes the one of both.
TEST(StandardImageAloneTest, AddsWhatTheImageTells) {
  const TemporaryDirectory temp;
  const std::string pdb = temp.file("engine64.pdb", read_file(kData + "/engine64.pdb"));
  const std::string tree = temp.folder("tree");
  ASSERT_EQ(run_standard({pdb, tree}).status, 0);
  ASSERT_EQ(run_standard({"-e", kData + "/engine64.exe", "-s", tree}).status, 0);
  const std::string id = "515D2ED965ADFF5D4C4C44205044422E1";
  EXPECT_EQ(read_file(tree + "/engine64.pdb/" + id + "/engine64.sym"),
            read_file(kData + "/engine64.std.sym"));
  EXPECT_TRUE(std::filesystem::is_symlink(tree + "/engine64.pdb/7EB27A1AF000"));
}

}  // namespace
