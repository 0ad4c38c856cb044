// The command line as a process: options, exit statuses, messages, output and the files in a symbol
// tree.

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/program.h"

namespace test_support {
namespace {

const std::string kText =
    "MODULE windows x86_64 ABC1 my a.pdb\n"
    "INFO CODE_ID     5F00 a.exe\n"
    "FUNC 1000 10 0 main\n"
    "1000 10 7 1\n";

TEST(OptionsTest, HaveTheListedEffects) {
  const TemporaryDirectory temp;
  const std::vector<std::pair<std::string, std::string>> names = {
      {"USAGE", test_data("usage.txt")},   {"PROGRAM", SYMFORGE_PROGRAM},
      {"TREE", temp.folder("tree")},       {"EMPTY", temp.folder("empty")},
      {"TEXT", temp.file("a.sym", kText)}, {"LINES", kText}};
  for (const TestCase& c : test_cases("commands.txt", "options")) {
    const std::string expected = replaced(c.expected, names);
    const Result result = run(split(replaced(c.input, names)));
    EXPECT_EQ(std::to_string(result.status), expected.substr(0, 1)) << c.input;
    EXPECT_EQ(result.out, expected[1] == '>' && expected.size() > 3 ? expected.substr(3) : "")
        << c.input;
    EXPECT_EQ(result.err, expected[1] == '!' ? expected.substr(3) : "") << c.input;
  }
}

TEST(OptionsTest, HaveLongForms) {
  const TemporaryDirectory temp;
  const std::vector<std::pair<std::string, std::string>> names = {
      {"ENGINE", kFixtures + "engine64"},
      {"TREE", temp.folder("tree")},
      {"TEXT", temp.file("a.sym", kText)}};
  for (const TestCase& c : test_cases("commands.txt", "long forms")) {
    const Result expected = run(split(replaced(c.expected, names)));
    const Result result = run(split(replaced(c.input, names)));
    EXPECT_EQ(result.status, expected.status) << c.input;
    EXPECT_EQ(result.out, expected.out) << c.input;
    EXPECT_EQ(result.err, expected.err) << c.input;
  }
  EXPECT_EQ(run({"--help"}).status, 0);
  EXPECT_THAT(run({"--help"}).out, HasSubstr("--standard "));
  EXPECT_EQ(run({"--frobnicate"}).status, 1);
}

TEST(TextInputTest, PassesTheTextThrough) {
  const std::string nul("FUNC\0 after NUL\n", 16);
  const std::pair<std::string, std::string> cases[] = {
      {kText + "no line end", kText + "no line end"},
      {kText + nul, kText + nul},
      {kText + "cut\xFF" + kText, kText + "cut"},
      {kText + std::string(300000, 'x'), kText + std::string(300000, 'x')},
  };
  const TemporaryDirectory temp;
  for (const auto& [input, output] : cases) {
    const Result result = run({temp.file("any.name", input)});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, output);
    EXPECT_EQ(result.err, "");
  }
}

using TreeTest = ProgramTest;

TEST_F(TreeTest, HoldsTheFileItsFoldersAndTheLink) {
  const Tree expected = {{"my a.pdb", "dir 0700"},
                         {"my a.pdb/5F00", "link ABC1"},
                         {"my a.pdb/ABC1", "dir 0700"},
                         {"my a.pdb/ABC1/my a.sym", "file 0600 " + kText}};
  const std::string input = temp_.file("a.sym", kText);
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(run({input, tree_}), ended(0, ""));
    EXPECT_EQ(list_tree(tree_), expected);
  }
}

// Obstacles to writing a result to the tree: the message, status 0, and no new file.
TEST_F(TreeTest, ReportsWhatItCannotWrite) {
  const std::string long_name(252, 'n');
  for (const TestCase& c : test_cases("commands.txt", "obstacles")) {
    const TemporaryDirectory temp;
    const std::string tree = temp.folder("tree");
    const std::vector<std::string> input = split(replaced(c.input, {{"LONG", long_name}}), '|');
    const std::string obstacle = input.size() == 1 ? "" : "tree/" + input[1];
    if (obstacle.ends_with('/')) {
      temp.folder(obstacle);
    } else if (!obstacle.empty()) {
      temp.file(obstacle, "");
    }
    const Tree before = list_tree(tree);
    const std::string text = "MODULE a b " + input[0] + "\nINFO CODE_ID 12 a.exe\n";
    EXPECT_THAT(run({temp.file("a.sym", text), tree}),
                ended(0, "symforge: " + replaced(c.expected, {{"LONG", long_name}}) + "\n"));
    EXPECT_EQ(list_tree(tree), before);
  }
}

// A full disk, simulated by a limit on the size of files.
TEST_F(TreeTest, KeepsTheOldFileWhenTheNewOneCannotBeWritten) {
  ASSERT_EQ(run({temp_.file("a.sym", kText), tree_}).status, 0);
  const Tree before = list_tree(tree_);
  const std::string bigger = temp_.file("b.sym", kText + std::string(100000, 'x'));
  EXPECT_THAT(run({bigger, tree_}, {.file_size = 50000}),
              ended(0, "symforge: failed to write: 27\n"));
  EXPECT_EQ(list_tree(tree_), before);
}

// With --sync, the data are synced before the file is renamed to the target, and the target's name
// before the program exits.
TEST_F(TreeTest, ReachesTheDiskInOrder) {
  if (*SYMFORGE_RECORDER == '\0') GTEST_SKIP() << "a sanitizer must be loaded first";
  const std::string text = temp_.file("a.sym", kText);
  const auto calls = [&](std::vector<std::string> args) {
    args.insert(args.end(), {text, tree_});
    return run(args, {.preload = SYMFORGE_RECORDER}).err;
  };
  const std::string synced = "fdatasync\nrename\nsymlink\nfsync\nfsync\nfsync\n";
  EXPECT_EQ(calls({}), "rename\nsymlink\n");
  EXPECT_EQ(calls({"--sync"}), synced);
  EXPECT_EQ(calls({"--standard"}), synced);
  EXPECT_EQ(calls({"--standard", "--no-sync"}), "rename\nsymlink\n");
}

TEST_F(TreeTest, TakesShortPathsWithoutExtension) {
  const std::string pdb = read_file(kFixtures + "engine64.pdb");
  for (const std::string name : {"a", "ab", "abc"}) {
    temp_.file(name, pdb);
    EXPECT_THAT(run({name, tree_}, {.directory = temp_.path()}), ended(0, "")) << name;
  }
  EXPECT_EQ(list_tree(tree_).size(), 9u);
}

TEST_F(TreeTest, IsNotNeededToReportAFullDevice) {
  EXPECT_THAT(run({temp_.file("a.sym", kText)}, {.stdout_path = "/dev/full"}),
              ended(0, "symforge: failed to write: 28\n"));
}

// A pair from a real tool chain, split up: which parts a conversion finds, and where.
class ImageTest : public ProgramTest {
 protected:
  ImageTest()
      : pdb_(temp_.file("a.pdb", read_file(kFixtures + "engine64.pdb"))),
        exe_(temp_.file("bin/a.exe", read_file(kFixtures + "engine64.exe"))) {
    text_ = run({pdb_}).out;
    id_ = text_.substr(22, text_.find(' ', 22) - 22);
    target_ = "a.pdb/" + id_ + "/a.sym";
  }

  static std::string without_image(const std::string& text) {
    return lines_without(text, {"INFO CODE_ID ", "STACK CFI "});
  }

  std::string pdb_, exe_, text_, id_, target_;
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
  EXPECT_THAT(run({pdb_}), ended(1, HasSubstr("\nException caught: Error reading PE header\n")));

  for (const std::string& path : {temp_.path(), std::string("/dev/null")}) {
    EXPECT_THAT(run({"-e", path, pdb_}),
                ended(1, HasSubstr("\nException caught: Error reading PE header\n")))
        << path;
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
  EXPECT_THAT(run({pdb_, tree_}), ended(255, "mkdir1 " + folder + ": File exists\n"));
}

// The image's own debug record names engine64.pdb.
TEST_F(ImageTest, IsAddedToTheSymbolFileInTheTreeOnce) {
  const auto refused = [&](const std::string& message) {
    const Tree before = list_tree(tree_);
    EXPECT_THAT(run({"-e", exe_, "-s", tree_}),
                ended(1, HasSubstr("Failed to convert symbol file " + exe_ +
                                   ".\nException caught: " + message + "\n")));
    EXPECT_EQ(list_tree(tree_), before);
  };
  refused("PE file without matching pdb or sym file");
  const std::string unreadable = temp_.folder("tree/engine64.pdb/" + id_ + "/engine64.sym");
  refused("failed to open sym file");
  std::filesystem::remove(unreadable);
  ASSERT_EQ(run({kFixtures + "engine64.pdb", "-e", "/no/where", tree_}).status, 0);
  EXPECT_EQ(run({"-e", exe_, "-s", tree_}).status, 0);
  const std::string whole = run({"-e", exe_, kFixtures + "engine64.pdb"}).out;
  EXPECT_EQ(read_file(tree_ + "/engine64.pdb/" + id_ + "/engine64.sym"),
            without_image(whole) + lines_with(whole, {"INFO CODE_ID "}) +
                lines_with(whole, {"STACK CFI "}));
  EXPECT_EQ(list_tree(tree_).size(), 4u);  // two directories, the file, the link
  refused("exe/dll already exists");
}

TEST_F(TreeTest, GetsTheIdentifierOfAnImageOfAnotherMachine) {
  const std::string text =
      "MODULE windows x86 0123456789ABCDEF1032547698BADCFE1 a.pdb\nPUBLIC 1 0 p\n";
  for (const uint16_t machine : {0x14C, 0xAA64}) {
    PeBuilder image(/*pe32_plus=*/machine != 0x14C);
    image.machine(machine).time_stamp(0x5F001234).size_of_image(0xA000);
    image.codeview({}, 1, "C:\\a.pdb").function(0x1000, 0x1020, {});
    const std::string exe = temp_.file("a.exe", image.build());
    const std::string tree = temp_.folder("tree" + std::to_string(machine));
    EXPECT_EQ(run({"-e", exe, "-s", tree}).status, 1);
    ASSERT_EQ(run({temp_.file("a.sym", text), tree}).status, 0);
    EXPECT_EQ(run({"-e", exe, "-s", tree}).status, 0) << machine;
    EXPECT_EQ(read_file(tree + "/a.pdb/0123456789ABCDEF1032547698BADCFE1/a.sym"),
              text + "INFO CODE_ID 5F001234A000 a.exe\n");
    EXPECT_EQ(run({"-e", exe, "-s", tree}).status, 1);
  }
}

using SymbTest = ProgramTest;

TEST_F(SymbTest, ConvertsToTheTreeAndBack) {
  ASSERT_EQ(run({"-b", temp_.file("a.sym", kText), tree_}).status, 0);
  const Tree converted = list_tree(tree_);
  EXPECT_EQ(converted.at("my a.pdb/5F00"), "link ABC1");
  const std::string image = tree_ + "/my a.pdb/ABC1/my a.symb";
  EXPECT_EQ(run({"-b", temp_ / "a.sym"}).out, read_file(image));
  EXPECT_THAT(run({image}).out, StartsWith("MODULE windows x86_64 ABC1 my\n"));
}

// The image writer stops at the first line that is not a header line, so it does not find this
// identity. A rejected text leaves an empty target and no link.
TEST_F(SymbTest, RefusedTextEmptiesTheTarget) {
  temp_.file("tree/a.pdb/X/a.symb", "old");
  const std::string text = "MODULE windows\nFUNC\nMODULE windows x X a.pdb\nINFO CODE_ID 1 a.exe\n";
  EXPECT_THAT(run({"-b", temp_.file("a.sym", text), tree_}), ended(0, ""));
  EXPECT_EQ(
      list_tree(tree_),
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

TEST_F(TreeTest, StaysEmptyAfterAFailureWithItsBacktrace) {
  for (const std::string& input :
       {temp_.file("empty", ""), temp_ / "missing", temp_.folder("dir")}) {
    const Result result = run({input, tree_});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, StartsWith("symforge: Failed to convert symbol file " + input +
                                       ".\n"
                                       "Exception caught: "));
    EXPECT_THAT(result.err, ContainsRegex("\nBacktrace:\n(\t[^\n]*\n)+\n$"));
    EXPECT_EQ(list_tree(tree_), Tree());
  }
}

}  // namespace
}  // namespace test_support
