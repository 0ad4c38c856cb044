// Standard mode as a process: exit statuses, messages, images found by their content, and batches
// that continue after errors.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/program.h"

namespace test_support {
namespace {

const std::string kShortText =
    "MODULE windows x86_64 ABC1 a.pdb\n"
    "INFO CODE_ID 5F000000 a.exe\n"
    "FUNC 1000 10 0 main\n";
const std::string kNoImage = "no image found: no code identifier and no unwind rules of one";

Result run_standard(std::vector<std::string> args, const RunOptions& options = {}) {
  args.insert(args.begin(), "--standard");
  return run(args, options);
}

using StandardStatusTest = ProgramTest;

// Any fault of an input: status 1, one line that names it, no signal.
TEST_F(StandardStatusTest, IsOneForInputsThatFail) {
  const std::string pdb = make_pdb(1);
  std::string page_size = pdb;
  page_size.replace(32, 4, std::string(4, '\0'));
  const std::pair<std::string, std::string> cases[] = {
      {temp_ / "missing", "No such file or directory"},
      {temp_.file("empty.pdb", ""), "Failed to load PDB file"},
      {temp_.folder("folder"), "Failed to load PDB file"},
      {temp_.file("no.pdb", "neither"),
       "Failed to read PDB Root Stream \\(Input file has an invalid signature\\)"},
      {temp_.file("cut.pdb", pdb.substr(0, pdb.size() / 2)), ".+"},
      {temp_.file("page_size.pdb", page_size), ".+"},
      {temp_.file("module.sym", "MODULE windows\n"), "the text has no complete MODULE line"},
      {temp_.file("damaged.symb", "SYMB" + std::string(200, '\xFF')), "failed to parse symb file"},
      {temp_.file("steers\x1B[2J\n.pdb", ""), "Failed to load PDB file"},
      {temp_.file("up.sym", "MODULE a b X ../a.pdb\n"), "failed to create .*/X: Invalid argument"},
  };
  for (const auto& [input, message] : cases) {
    const Result result = run_standard({input, tree_});
    EXPECT_EQ(result.status, 1) << input;
    EXPECT_THAT(result.err, MatchesRegex("symforge: [^\n\x1B]+: " + message + "\n"));
    EXPECT_THAT(result.err, StartsWith("symforge: " + input.substr(0, input.find('\x1B'))));
    EXPECT_THAT(list_tree(tree_), IsEmpty());
  }
}

// Files that are not converted: one line that says what they are, in default mode after its
// message.
TEST_F(StandardStatusTest, IsOneForOtherKindsOfFiles) {
  const auto expect_refused = [&](const std::string& bytes, const std::string& message) {
    const std::string path = temp_.file("a.pdb", bytes);
    const Result result = run_standard({path});
    EXPECT_EQ(result.status, 1) << message;
    EXPECT_THAT(result.err, MatchesRegex("symforge: [^\n:]+: th[^\n]+\n"));
    EXPECT_THAT(result.err, HasSubstr(message));
    return path;
  };
  std::vector<std::pair<std::string, std::string>> others = {{make_pe(1), "image"},
                                                             {managed_pdb(), "managed"}};
  for (const TestCase& c : test_cases("other_files.txt")) {
    others.emplace_back(c.input, c.expected.substr(c.expected.find(" | ") + 3));
  }
  for (const auto& [bytes, message] : others) {
    const std::string path = expect_refused(bytes, message);
    const Result by_default = run({path});
    EXPECT_EQ(by_default.status, 1) << message;
    EXPECT_THAT(by_default.err, HasSubstr("Exception caught: "));
    EXPECT_THAT(by_default.err, HasSubstr("\nsymforge: " + path + ": this "));
    EXPECT_THAT(by_default.err, HasSubstr(message));
  }
  // Default mode converts these.
  expect_refused(type_server_pdb(), "type server C:\\obj\\vc140.pdb; link");
  expect_refused(fastlink_pdb(), "/DEBUG:FASTLINK");
  // Java's classes begin like Mach-O files for several machines.
  const std::string java = temp_.file("a.pdb", "\xCA\xFE\xBA\xBE" + std::string("\0\0\0\x34", 4));
  EXPECT_THAT(run_standard({java}).err, HasSubstr("Failed to read PDB Root Stream"));
}

TEST_F(StandardStatusTest, IsZeroForNativeFunctionsOfManagedPdbs) {
  PdbBuilder pdb = pdb_with_code();
  pdb.dbi.debug.token_rid_map = 1;
  pdb.add_module("m.obj").proc({.name = "native", .length = 16}).end();
  const Result result = run_standard({temp_.file("a.pdb", pdb.build().bytes)});
  EXPECT_THAT(result.out, HasSubstr("FUNC 1000 10 0 native\n"));
}

// PDBs truncated at every page or with their first bytes changed, which trigger assertions, range
// checks and exceptions.
TEST_F(StandardStatusTest, IsNeverASignal) {
  const std::string pdb = read_file(kFixtures + "engine64.pdb");
  for (size_t i = 0; i < 120; ++i) {
    std::string damaged = pdb;
    if (i % 2 == 0) damaged.resize(pdb.size() * i / 120);
    for (size_t at = i * 37; at < damaged.size(); at += 331 + i) damaged[at] ^= '\x5A';
    const Result result = run_standard({temp_.file("damaged.pdb", damaged)});
    EXPECT_EQ(result.signal, 0) << i;
    if (result.status == 0) continue;
    EXPECT_EQ(result.status, 1) << i;
    EXPECT_THAT(result.err, MatchesRegex("symforge: " + (temp_ / "damaged.pdb") + ": [^\n]+\n"));
    EXPECT_THAT(result.err, Not(HasSubstr("memory access"))) << i;
  }
}

// The stream of the module ends inside the name of its second function.
TEST_F(StandardStatusTest, IsZeroForAFunctionWithHalfAName) {
  PdbBuilder pdb = pdb_with_code();
  Bytes half;
  half.u16(300).u16(kGProc32).fill(28).u32(0x20).u16(1).u8(0).text("half");
  pdb.add_module("m.obj").proc({.name = "f", .length = 16}).raw_symbols(half.str());
  const Result result = run_standard({temp_.file("a.pdb", pdb.build().bytes)});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\nFUNC 1000 10 0 f\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("half")));
}

TEST_F(StandardStatusTest, IsOneForResultsThatCannotBeWritten) {
  const std::string text = temp_.file("a.sym", kShortText + std::string(100000, 'x'));
  EXPECT_EQ(run_standard({text}, {.stdout_path = "/dev/full"}).err,
            "symforge: " + text + ": failed to write: No space left on device\n");

  EXPECT_THAT(run_standard({text, tree_}, {.file_size = 5000}),
              ended(1, "symforge: " + text + ": failed to write: File too large\n"));

  // The link of a code identifier: an existing link is accepted if its target is the same.
  EXPECT_EQ(run_standard({text, tree_}).err, "");
  EXPECT_EQ(run_standard({text, tree_}).status, 0);
  std::filesystem::remove(tree_ + "/a.pdb/5F000000");
  std::filesystem::create_symlink("OTHER", tree_ + "/a.pdb/5F000000");
  EXPECT_THAT(run_standard({text, tree_}),
              ended(1, HasSubstr(": failed to link " + tree_ + "/a.pdb/5F000000: File exists\n")));
  const std::string up = temp_.file("b.sym", "MODULE a b X b.pdb\nINFO CODE_ID ../x b.exe\n");
  EXPECT_THAT(run_standard({up, tree_}), ended(1, HasSubstr("/b.pdb/../x: Invalid argument\n")));
}

TEST_F(StandardStatusTest, IsOneWhenTheReaderClosesThePipe) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  const std::string text = temp_.file("a.sym", kShortText);
  const Result result = run_standard({text}, {.stdout_fd = ends[1]});
  close(ends[1]);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "symforge: " + text + ": failed to write: Broken pipe\n");
}

// A text without a SYMB form leaves the existing target unchanged.
TEST_F(StandardStatusTest, IsOneForTextsWithoutSymbForm) {
  temp_.file("tree/a.pdb/X/a.symb", "old");
  const std::string text = "MODULE windows\nFUNC\nMODULE windows x X a.pdb\n";
  const Result result = run_standard({"-b", temp_.file("a.sym", text), tree_});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(read_file(tree_ + "/a.pdb/X/a.symb"), "old");
}

TEST_F(StandardStatusTest, IsZeroWithTheUmaskApplied) {
  ASSERT_EQ(run_standard({temp_.file("a.sym", kShortText), tree_}).err, "");
  EXPECT_EQ(list_tree(tree_), (Tree{{"a.pdb", "dir 0755"},
                                    {"a.pdb/5F000000", "link ABC1"},
                                    {"a.pdb/ABC1", "dir 0755"},
                                    {"a.pdb/ABC1/a.sym", "file 0644 " + kShortText}}));
}

class StandardImageTest : public ProgramTest {
 protected:
  // The second line of the result, or the message if there is none.
  std::string image_of(std::vector<std::string> args) {
    const Result result = run_standard(std::move(args));
    if (result.status != 0) return result.err;
    const std::string line = lines_with(result.out, {"INFO CODE_ID "});
    return line.empty() ? result.err : line;
  }

  const std::string pdb_ = temp_.file("a.pdb", make_pdb(7));
};

TEST_F(StandardImageTest, IsFoundByItsContent) {
  const std::string none = "symforge: " + pdb_ + ": " + kNoImage + "\n";
  const struct {
    std::string name;
    std::string bytes;
    bool found;
  } cases[] = {
      {"a.exe", make_pe(7), true},
      {"A.Node", make_pe(7), true},
      {"a", make_pe(7, "a.pdb", false), true},
      {"a.x.sys", make_pe(7, "a.pdb", false), true},
      {"a.exe", make_pe(8), false},
      {"a.exe", "MZ", false},
      {"b.exe", make_pe(7), false},
      {"ab.exe", make_pe(7), false},
      {"a.exe", "no image", false},
      {"a.exe", PeBuilder().build(), false},
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

class StandardBatchTest : public ProgramTest {
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

  bool as_nobody_ = false;
};

TEST_F(StandardBatchTest, EndsWithZeroWhenEverythingWasConverted) {
  temp_.file("in/a.pdb", make_pdb(1));
  temp_.file("in/x/renamed.node", make_pe(1));
  temp_.file("in/b.pdb", make_pdb(2));
  temp_.file("in/b.exe", make_pe(2, "b.pdb", false));
  temp_.file("in/copy/b.exe", make_pe(2, "b.pdb", false));
  temp_.file("in/readme.txt", "no input");
  temp_.file("in/stray.ocx", make_pe(9));
  temp_.file("in/t.sym", kShortText);
  const Result result = batch();
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.err, Not(HasSubstr("stray")));
  EXPECT_THAT(result.err, Not(HasSubstr("copy")));
  EXPECT_THAT(results(), ::testing::ElementsAre("a.sym", "a.sym", "b.sym"));
}

TEST_F(StandardBatchTest, EndsWithTwoWhenSomeInputsFailed) {
  temp_.file("in/a.sym", kShortText);
  temp_.file("in/bad.pdb", "bad");
  temp_.file("in/lone.exe", make_pe(5));
  EXPECT_THAT(batch(),
              ended(2, StartsWith("symforge: " + in_ +
                                  "/lone.exe: PE file without matching pdb or sym file\n" +
                                  "symforge: " + in_ +
                                  "/bad.pdb: Failed to read PDB Root Stream (Input file has an "
                                  "invalid signature)\n" +
                                  "symforge: 1 converted, 2 failed (" + in_ + "/lone.exe, " + in_ +
                                  "/bad.pdb), 0 skipped, ")));
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
  temp_.file("in/a.sym", kShortText);
  std::filesystem::create_symlink("nowhere", in_ + "/dangling.pdb");
  temp_.folder("in/closed");
  chmod((in_ + "/closed").c_str(), 0);
  std::filesystem::create_directory_symlink("..", in_ + "/loop");
  std::filesystem::create_symlink("circle", in_ + "/circle");
  const Result result = batch();
  EXPECT_EQ(result.status, 2);
  const std::string circle = in_ + "/circle", closed = in_ + "/closed",
                    gone = in_ + "/dangling.pdb";
  EXPECT_THAT(result.err, HasSubstr("symforge: " + closed + ": Permission denied\n"));
  EXPECT_THAT(result.err, HasSubstr("symforge: " + gone + ": No such file or directory\n"));
  EXPECT_THAT(result.err, HasSubstr("symforge: " + circle + ": Too many levels"));
  EXPECT_THAT(result.err, HasSubstr(" 1 converted, 3 failed (" + circle + ", " + closed + ", " +
                                    gone + "), 0 skipped"));
  EXPECT_THAT(results(), ::testing::ElementsAre("a.sym"));
}

// A symbol file that was made without its image becomes the one of both.
TEST_F(StandardStatusTest, IsZeroForAnImageThatJoinsItsSymbolFile) {
  const std::string pdb = temp_.file("engine64.pdb", read_file(kFixtures + "engine64.pdb"));
  ASSERT_EQ(run_standard({pdb, tree_}).status, 0);
  ASSERT_EQ(run_standard({"-e", kFixtures + "engine64.exe", "-s", tree_}).status, 0);
  EXPECT_EQ(read_file(tree_ + "/engine64.pdb/" + kEngineId + "/engine64.sym"),
            read_file(kFixtures + "engine64.std.sym"));
  EXPECT_TRUE(std::filesystem::is_symlink(tree_ + "/engine64.pdb/7EB27A1AF000"));
}

}  // namespace
}  // namespace test_support
