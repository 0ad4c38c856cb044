// The command line as a process: options, exit statuses, messages, output and the files in a symbol
// tree.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const std::string kText =
    "MODULE windows x86_64 ABC1 my a.pdb\n"
    "INFO CODE_ID     5F00 a.exe\n"
    "FUNC 1000 10 0 main\n"
    "1000 10 7 1\n";

std::string usage() {
  return "Usage: " SYMFORGE_PROGRAM
         " [options] <pdb file/dir> <output_symbol_dir (optional)>\n\n"
         "    -i                         DO NOT extract inline information\n"
         "    -b                         Output sym file in binary format\n"
         "    -e <exe/dll file>          Executable that matches the pdb file\n"
         "    -r                         Convert pdb files in the directory recursively.\n"
         "    -s <output_symbol_dir>     Root directory of Breakpad symbol tree\n"
         "    -v                         Print version and exit.\n"
         "    -h                         Print this help text and exit.\n";
}

TEST(OptionsTest, ChecksInTheirOrder) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  const std::string text = temp.file("a.sym", kText);
  const std::string unknown = SYMFORGE_PROGRAM ": invalid option -- 'x'\n" + usage();
  const std::string exclusive = "symforge: options '-e' and '-r' are mutually exclusive\n";
  const std::string no_tree =
      "symforge: option '-r' implies multiple pdb files and the output symbol path must be set\n";
  const std::string nowhere = "symforge: symbol path doesn't exist: /no/where\n";
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
  } cases[] = {
      {{}, 1, "", usage()},
      {{"-h"}, 0, usage(), ""},
      {{"-v", "-x"}, 0, "1.50.4\n", ""},
      {{"-x", "-v"}, 1, "", unknown},
      {{"-e"}, 1, "", SYMFORGE_PROGRAM ": option requires an argument -- 'e'\n" + usage()},
      {{"-s", tree}, 1, "", usage()},
      {{"-r", "-s", tree}, 1, "", usage()},
      {{"-r", "-e", "x"}, 1, "", exclusive},
      {{"-r", "x"}, 1, "", no_tree},
      {{"-r", "x", "/no/where"}, 1, "", nowhere},
      {{"-s", tree, text, tree},
       1,
       "",
       "symforge: output symbol path is already set in -s option: " + tree + "\n"},
      {{"-e", "x"},
       1,
       "",
       "symforge: output symbol path must be set with seperate exe/dll symbol\n"},
      {{"-e", "x", "-s", "/no/where"}, 1, "", nowhere},
      {{text, "/no/where"}, 1, "", nowhere},
      {{text, "-s", "/no/where"}, 1, "", nowhere},
      {{"-j", "1025", text}, 1, "", "symforge: option '-j' needs a number from 0 to 1024: 1025\n"},
      {{"--standard", "--jobs=2x", text},
       1,
       "",
       "symforge: option '-j' needs a number from 0 to 1024: 2x\n"},
      {{"--max-memory=2X", text},
       1,
       "",
       "symforge: option '--max-memory' needs a size such as 500M or 2G: 2X\n"},
      {{"-qj0", "--max-memory=2g", text}, 0, kText, ""},
      {{text}, 0, kText, ""},
      {{text, tree, "third", "-i"}, 0, "", ""},
      {{"-r", temp.folder("empty"), tree}, 1, "", ""},
  };
  for (const auto& c : cases) {
    const Result result = run(c.args);
    const std::string args = ::testing::PrintToString(c.args);
    EXPECT_EQ(result.status, c.status) << args;
    EXPECT_EQ(result.out, c.out) << args;
    EXPECT_EQ(result.err, c.err) << args;
  }
}

TEST(OptionsTest, HaveLongForms) {
  const TemporaryDirectory temp;
  const std::string text = temp.file("a.sym", kText);
  const std::string pdb = SYMFORGE_FIXTURES "/engine64.pdb";
  const std::string exe = SYMFORGE_FIXTURES "/engine64.exe";
  const std::string tree = temp.folder("tree");
  const struct {
    std::vector<std::string> long_form;
    std::vector<std::string> short_form;
  } cases[] = {
      {{"--version"}, {"-v"}},
      {{"--binary", text}, {"-b", text}},
      {{"--no-inlines", "--image", exe, pdb}, {"-i", "-e", exe, pdb}},
      {{"--image=" + exe, pdb}, {"-e", exe, pdb}},
      {{"--recursive", "--image", "x"}, {"-r", "-e", "x"}},
      {{"--tree", tree, text, tree}, {"-s", tree, text, tree}},
      {{"--sync", "--no-sync", "--no-sandbox", text}, {text}},
  };
  for (const auto& c : cases) {
    const Result expected = run(c.short_form);
    const Result result = run(c.long_form);
    const std::string args = ::testing::PrintToString(c.long_form);
    EXPECT_EQ(result.status, expected.status) << args;
    EXPECT_EQ(result.out, expected.out) << args;
    EXPECT_EQ(result.err, expected.err) << args;
  }
  EXPECT_EQ(run({"--help"}).status, 0);
  EXPECT_THAT(run({"--help"}).out, HasSubstr("--standard "));
  EXPECT_EQ(run({"--frobnicate"}).status, 1);
}

TEST(TextInputTest, PassesTheTextThrough) {
  const std::string nul("FUNC\0 after NUL\n", 16);
  const struct {
    std::string input;
    std::string output;
  } cases[] = {
      {kText + "no line end", kText + "no line end"},
      {kText + nul, kText + nul},
      {kText + "cut\xFF" + kText, kText + "cut"},
      {kText + std::string(300000, 'x'), kText + std::string(300000, 'x')},
  };
  const TemporaryDirectory temp;
  for (const auto& c : cases) {
    const Result result = run({temp.file("any.name", c.input)});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, c.output);
    EXPECT_EQ(result.err, "");
  }
}

TEST(TreeTest, HoldsTheFileItsFoldersAndTheLink) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  const Tree expected = {{"my a.pdb", "dir 0700"},
                         {"my a.pdb/5F00", "link ABC1"},
                         {"my a.pdb/ABC1", "dir 0700"},
                         {"my a.pdb/ABC1/my a.sym", "file 0600 " + kText}};
  const std::string input = temp.file("a.sym", kText);
  for (int i = 0; i < 2; ++i) {
    const Result result = run({input, tree});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(list_tree(tree), expected);
  }
}

// Obstacles to writing a result to the tree: the message, status 0, and no new file.
TEST(TreeTest, ReportsWhatItCannotWrite) {
  const std::string long_name(252, 'n');
  const struct {
    std::string module;   // identifier and debug file
    std::string blocker;  // file in the tree; a directory if it ends in '/'
    std::string message;
  } cases[] = {
      {"X ../a.pdb", "", "failed to create symbol file path: ../a.pdb/X"},
      {".. a.pdb", "", "failed to create symbol file path: a.pdb/.."},
      {"X " + std::string(256, 'n'), "",
       "failed to create symbol file path: " + std::string(256, 'n') + "/X"},
      {"X a.pdb", "a.pdb", "failed to create symbol file path: a.pdb/X"},
      {"X a.pdb", "a.pdb/X", "failed to mkstemp: 20"},
      {"X a.pdb", "a.pdb/X/a.sym/", "failed to rename: 21"},
      {"X " + long_name, long_name + "/X/", "failed to mkstemp: 36"},
  };
  for (const auto& c : cases) {
    const TemporaryDirectory temp;
    const std::string tree = temp.folder("tree");
    if (c.blocker.ends_with('/')) {
      temp.folder("tree/" + c.blocker);
    } else if (!c.blocker.empty()) {
      temp.file("tree/" + c.blocker, "");
    }
    const Tree before = list_tree(tree);
    const Result result =
        run({temp.file("a.sym", "MODULE a b " + c.module + "\nINFO CODE_ID 12 a.exe\n"), tree});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "symforge: " + c.message + "\n");
    EXPECT_EQ(list_tree(tree), before);
  }
}

// A full disk, simulated by a limit on the size of files.
TEST(TreeTest, KeepsTheOldFileWhenTheNewOneCannotBeWritten) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  ASSERT_EQ(run({temp.file("a.sym", kText), tree}).status, 0);
  const Tree before = list_tree(tree);
  const std::string bigger = temp.file("b.sym", kText + std::string(100000, 'x'));
  const Result result = run({bigger, tree}, {.file_size = 50000});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "symforge: failed to write: 27\n");
  EXPECT_EQ(list_tree(tree), before);
}

// With --sync, the data are synced before the file is renamed to the target, and the target's name
// before the program exits.
TEST(TreeTest, ReachesTheDiskInOrder) {
  if (*SYMFORGE_RECORDER == '\0') GTEST_SKIP() << "a sanitizer must be loaded first";
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  const std::string text = temp.file("a.sym", kText);
  const auto calls = [&](std::vector<std::string> args) {
    args.insert(args.end(), {text, tree});
    return run(args, {.preload = SYMFORGE_RECORDER}).err;
  };
  const std::string synced = "fdatasync\nrename\nsymlink\nfsync\nfsync\nfsync\n";
  EXPECT_EQ(calls({}), "rename\nsymlink\n");
  EXPECT_EQ(calls({"--sync"}), synced);
  EXPECT_EQ(calls({"--standard"}), synced);
  EXPECT_EQ(calls({"--standard", "--no-sync"}), "rename\nsymlink\n");
}

TEST(PathTest, MayBeShortAndWithoutExtension) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  const std::string pdb = read_file(SYMFORGE_FIXTURES "/engine64.pdb");
  for (const std::string name : {"a", "ab", "abc"}) {
    temp.file(name, pdb);
    const Result result = run({name, tree}, {.directory = temp.path()});
    EXPECT_EQ(result.status, 0) << name;
    EXPECT_EQ(result.err, "") << name;
  }
  EXPECT_EQ(list_tree(tree).size(), 9u);
}

TEST(StdoutTest, ReportsAFullDevice) {
  const TemporaryDirectory temp;
  const Result result = run({temp.file("a.sym", kText)}, {.stdout_path = "/dev/full"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "symforge: failed to write: 28\n");
}

const std::string kData = SYMFORGE_FIXTURES;

// A pair from a real tool chain, split up: which parts a conversion finds, and where.
class ImageTest : public ::testing::Test {
 protected:
  ImageTest()
      : pdb_(temp_.file("a.pdb", read_file(kData + "/engine64.pdb"))),
        exe_(temp_.file("bin/a.exe", read_file(kData + "/engine64.exe"))),
        tree_(temp_.folder("tree")) {
    text_ = run({pdb_}).out;
    id_ = text_.substr(22, text_.find(' ', 22) - 22);
    target_ = "a.pdb/" + id_ + "/a.sym";
  }

  static std::string without_image(const std::string& text) {
    return lines_without(text, {"INFO CODE_ID ", "STACK CFI "});
  }

  TemporaryDirectory temp_;
  std::string pdb_, exe_, tree_, text_, id_, target_;
};

TEST_F(ImageTest, IsFoundBesideThePdbOrWhereTheOptionSays) {
  EXPECT_EQ(without_image(text_), text_);
  const Result named = run({"-e", exe_, pdb_});
  EXPECT_EQ(without_image(named.out), text_);
  EXPECT_THAT(named.out, ContainsRegex("\nINFO CODE_ID [0-9A-F]+ a.exe\n"));
  EXPECT_THAT(named.out, HasSubstr("\nSTACK CFI INIT "));
  EXPECT_EQ(run({"-e", "/no/where.exe", pdb_}).out, text_);

  std::filesystem::copy(exe_, temp_ / "a.exe");
  EXPECT_EQ(run({pdb_}).out, named.out);
  temp_.file("a.exe", "no image");
  const Result foreign = run({pdb_});
  EXPECT_EQ(foreign.status, 1);
  EXPECT_THAT(foreign.err, HasSubstr("\nException caught: Error reading PE header\n"));

  for (const std::string& path : {temp_.path(), std::string("/dev/null")}) {
    const Result other = run({"-e", path, pdb_});
    EXPECT_EQ(other.status, 1) << path;
    EXPECT_THAT(other.err, HasSubstr("\nException caught: Error reading PE header\n")) << path;
  }
}

TEST_F(ImageTest, ComesWithItsLink) {
  EXPECT_EQ(run({"-e", exe_, pdb_, tree_}).err, "");
  const std::string text = run({"-e", exe_, pdb_}).out;
  const size_t code_id = text.find("INFO CODE_ID ") + 13;
  const std::string link = text.substr(code_id, text.find(' ', code_id) - code_id);
  EXPECT_EQ(list_tree(tree_), (Tree{{"a.pdb", "dir 0755"},
                                    {"a.pdb/" + id_, "dir 0755"},
                                    {"a.pdb/" + link, "link " + id_},
                                    {target_, "file 0600 " + text}}));
}

// A dangling link is not a directory and prevents creating one.
TEST_F(ImageTest, FailsIfDirectoriesCannotBeCreated) {
  const std::string folder = tree_ + "/a.pdb";
  std::filesystem::create_symlink("nowhere", folder);
  const Result result = run({pdb_, tree_});
  EXPECT_EQ(result.status, 255);
  EXPECT_EQ(result.err, "mkdir1 " + folder + ": File exists\n");
}

// The image's own debug record names engine64.pdb.
TEST_F(ImageTest, IsAddedToTheSymbolFileInTheTreeOnce) {
  const auto refused = [&](const std::string& message) {
    const Tree before = list_tree(tree_);
    const Result result = run({"-e", exe_, "-s", tree_});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Failed to convert symbol file " + exe_ +
                                      ".\nException caught: " + message + "\n"));
    EXPECT_EQ(list_tree(tree_), before);
  };
  refused("PE file without matching pdb or sym file");
  const std::string unreadable = temp_.folder("tree/engine64.pdb/" + id_ + "/engine64.sym");
  refused("failed to open sym file");
  std::filesystem::remove(unreadable);
  ASSERT_EQ(run({kData + "/engine64.pdb", "-e", "/no/where", tree_}).status, 0);
  EXPECT_EQ(run({"-e", exe_, "-s", tree_}).status, 0);
  const std::string whole = run({"-e", exe_, kData + "/engine64.pdb"}).out;
  EXPECT_EQ(read_file(tree_ + "/engine64.pdb/" + id_ + "/engine64.sym"),
            without_image(whole) + lines_with(whole, {"INFO CODE_ID "}) +
                lines_with(whole, {"STACK CFI "}));
  EXPECT_EQ(list_tree(tree_).size(), 4u);  // two directories, the file, the link
  refused("exe/dll already exists");
}

TEST(ImageAloneTest, OfAnotherMachineAddsItsIdentifierOnly) {
  const TemporaryDirectory temp;
  const std::string text =
      "MODULE windows x86 0123456789ABCDEF1032547698BADCFE1 a.pdb\nPUBLIC 1 0 p\n";
  for (const uint16_t machine : {0x14C, 0xAA64}) {
    PeBuilder image(/*pe32_plus=*/machine != 0x14C);
    image.machine(machine).time_stamp(0x5F001234).size_of_image(0xA000);
    image.codeview({}, 1, "C:\\a.pdb").function(0x1000, 0x1020, {});
    const std::string exe = temp.file("a.exe", image.build());
    const std::string tree = temp.folder("tree" + std::to_string(machine));
    EXPECT_EQ(run({"-e", exe, "-s", tree}).status, 1);
    ASSERT_EQ(run({temp.file("a.sym", text), tree}).status, 0);
    EXPECT_EQ(run({"-e", exe, "-s", tree}).status, 0) << machine;
    EXPECT_EQ(read_file(tree + "/a.pdb/0123456789ABCDEF1032547698BADCFE1/a.sym"),
              text + "INFO CODE_ID 5F001234A000 a.exe\n");
    EXPECT_EQ(run({"-e", exe, "-s", tree}).status, 1);
  }
}

TEST(SymbTest, ConvertsToTheTreeAndBack) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  ASSERT_EQ(run({"-b", temp.file("a.sym", kText), tree}).status, 0);
  const Tree converted = list_tree(tree);
  EXPECT_EQ(converted.at("my a.pdb/5F00"), "link ABC1");
  const std::string image = tree + "/my a.pdb/ABC1/my a.symb";
  EXPECT_EQ(run({"-b", temp / "a.sym"}).out, read_file(image));
  EXPECT_THAT(run({image}).out, StartsWith("MODULE windows x86_64 ABC1 my\n"));
}

// The image writer stops at the first line that is not a header line, so it does not find this
// identity. A rejected text leaves an empty target and no link.
TEST(SymbTest, RefusedTextEmptiesTheTarget) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  temp.file("tree/a.pdb/X/a.symb", "old");
  const std::string text = "MODULE windows\nFUNC\nMODULE windows x X a.pdb\nINFO CODE_ID 1 a.exe\n";
  const Result result = run({"-b", temp.file("a.sym", text), tree});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(
      list_tree(tree),
      (Tree{{"a.pdb", "dir 0755"}, {"a.pdb/X", "dir 0755"}, {"a.pdb/X/a.symb", "file 0600 "}}));
}

// A PDB whose names have line ends, which cannot start lines of their own, and with 1,500 warnings.
TEST(HostilePdbTest, AddsNeitherLinesNorEndlessWarnings) {
  const TemporaryDirectory temp;
  const std::string forged = "\nPUBLIC 1 0 forged\rPUBLIC 2 0 forged";
  PdbBuilder pdb(512);
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x1000});
  const uint32_t pointer = pdb.types.pointer(0x74, 7 << 5);
  const uint32_t list = pdb.types.arguments(std::vector<uint32_t>(1500, pointer));
  const uint32_t type = pdb.types.procedure(3, list, 1500);
  const uint32_t inlinee = pdb.ids.function_id("i" + forged, 0);
  ModuleBuilder& module = pdb.add_module("m");
  const uint32_t file = module.file(pdb.names.add("a" + forged));
  module.proc({.name = "f" + forged, .length = 16, .type = type});
  module.inline_site(inlinee, Annotations().op(3, 1).op(4, 1)).inline_site_end().end();
  module.lines(1, 0, 16, file, {{0, 1}}).inlinees({{inlinee, file, 1}});
  pdb.public_function("p" + forged, 1, 32);
  pdb.frame_data({.start = 0x1000, .code_size = 16, .program = pdb.names.add("s" + forged)});
  const std::string path = temp.file("a.pdb", pdb.build().bytes);
  for (const std::string mode : {"--no-sync", "--standard"}) {
    const Result result = run({mode, path});
    EXPECT_EQ(result.status, 0) << mode;
    EXPECT_THAT(result.out, HasSubstr("PUBLIC 1 0 forged")) << mode;
    EXPECT_EQ(lines_with(result.out, {"PUBLIC 1 ", "PUBLIC 2 "}), "") << mode;
    EXPECT_EQ(result.out.find('\r'), std::string::npos) << mode;
    const auto warnings = std::count(result.err.begin(), result.err.end(), '\n');
    EXPECT_TRUE(warnings > 1000 && warnings < 1010) << mode << warnings;
    EXPECT_THAT(result.err, HasSubstr("urther warnings ")) << mode;
  }
}

TEST(FailureTest, IsLoggedWithItsBacktrace) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  for (const std::string& input : {temp.file("empty", ""), temp / "missing", temp.folder("dir")}) {
    const Result result = run({input, tree});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, StartsWith("symforge: Failed to convert symbol file " + input +
                                       ".\n"
                                       "Exception caught: "));
    EXPECT_THAT(result.err, ContainsRegex("\nBacktrace:\n(\t[^\n]*\n)+\n$"));
    EXPECT_EQ(list_tree(tree), Tree());
  }
}

}  // namespace
