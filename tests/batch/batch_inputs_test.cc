// The inputs of batches: folders, several files, lists, standard input, and what --if-changed
// skips.

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/program.h"

namespace test_support {
namespace {

using BatchWalkTest = ProgramTest;

// An unreadable directory ends the batch before any conversion.
TEST_F(BatchWalkTest, StopsAtUnreadableDirectories) {
  chmod(temp_.path().c_str(), 0755);
  temp_.file("in/a.sym", make_text(1, "a.pdb"));
  const auto stops_with = [&](const std::string& message) {
    EXPECT_THAT(run({"-r", in_, tree_}, {.as_nobody = true}),
                ended(1, "symforge: " + message + "\n"));
    EXPECT_EQ(list_tree(tree_), Tree());
  };
  std::filesystem::create_symlink("nowhere", in_ + "/dangling");
  stops_with("Failed to stat " + in_ + "/dangling");
  std::filesystem::remove(in_ + "/dangling");

  temp_.folder("in/closed");
  chmod((in_ + "/closed").c_str(), 0);
  stops_with("Failed to opendir " + in_ + "/closed");
  std::filesystem::remove(in_ + "/closed");

  EXPECT_EQ(run({"-r", temp_ / "missing", tree_}).err,
            "symforge: Failed to stat " + (temp_ / "missing") + "\n");
}

// A FIFO blocks a batch neither as an input nor as an image of one.
TEST_F(BatchWalkTest, SkipsEverythingButRegularFiles) {
  temp_.file("in/a.pdb", make_pdb(1));
  for (const char* name : {"a.exe", "b.pdb", "c.sym", "d.dll"}) {
    ASSERT_EQ(mkfifo((in_ + "/" + name).c_str(), 0600), 0);
  }
  for (const std::string mode : {"-b", "--standard"}) {
    EXPECT_EQ(run({"-r", mode, in_, tree_}).status, 0) << mode;
  }
}

TEST_F(BatchWalkTest, HoldsFewDescriptorsInDeepTrees) {
  std::string deep = "in";
  for (int i = 0; i < 300; ++i) deep += "/d";
  temp_.file(deep + "/a.sym", make_text(1, "a.pdb"));
  const Result result = run({"-r", temp_ / "in", tree_}, {.descriptors = 8});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(list_tree(tree_).size(), 3u);
}

// Several inputs without -r: by content, whatever their names.
TEST(SeveralInputsTest, ComeFromArgumentsAndLists) {
  const TemporaryDirectory temp;
  temp.file("a.pdb", make_pdb(1));
  temp.file("image.bin", make_pe(1, "a.pdb"));
  temp.file("text", make_text(2, "t.pdb"));
  temp.file("-x.pdb", make_pdb(3));
  temp.file("line\nfeed.pdb", make_pdb(4));
  const auto tree_of = [&](const std::string& tree, const std::string& command) {
    temp.folder(tree);
    const std::string line = "cd " + temp.path() + " && " + command;
    EXPECT_EQ(std::system(line.c_str()), 0) << command;
    return list_tree(temp / tree);
  };
  const std::string program = SYMFORGE_PROGRAM " --standard -q --no-sync ";
  const std::string names = "text image.bin '-x.pdb' 'line\nfeed.pdb' a.pdb";
  const Tree expected = tree_of(
      "one", program + "-s one text && " + program + "-s one -e image.bin a.pdb && " + program +
                 "-s one ./-x.pdb 2>&- && " + program + "-s one 'line\nfeed.pdb' 2>&-");
  ASSERT_EQ(expected.size(), 12u);
  EXPECT_EQ(tree_of("two", program + "-s two -- " + names + " 2>&-"), expected);
  EXPECT_EQ(tree_of("three", "printf '%s\\0' " + names + " | " + program +
                                 "-j2 --files-from - -s three 2>&-"),
            expected);
  EXPECT_EQ(tree_of("four", "printf '%s\n\n' text image.bin a.pdb > list && " + program +
                                "--files-from list -s four ./-x.pdb line*.pdb 2>&-"),
            expected);
}

TEST(SeveralInputsTest, AreRefusedWithAReason) {
  const TemporaryDirectory temp;
  temp.file("a.pdb", make_pdb(1));
  temp.file("b.sym", make_text(2, "t.pdb"));
  temp.folder("tree");
  temp.folder("in");
  for (const TestCase& c : test_cases("commands.txt", "several inputs")) {
    EXPECT_THAT(run(split(c.input), {.directory = temp.path()}),
                ended(1, "symforge: " + c.expected + "\n"))
        << c.input;
  }
  EXPECT_EQ(list_tree(temp / "tree"), Tree());
}

TEST(StandardInputTest, CanBeTextOrSymb) {
  const TemporaryDirectory temp;
  const std::string text = make_text(1, "a.pdb");
  temp.file("a.sym", text);
  temp.file("a.pdb", make_pdb(1));
  const std::string begin = "cd " + temp.path() + " && ";
  const std::string program = SYMFORGE_PROGRAM " ";
  for (const std::string mode : {"", "--standard "}) {
    const std::string round = program + mode + "-b a.sym > a.symb && " + program + mode +
                              "a.symb > back && cat a.sym | " + program + mode + "-b - | " +
                              program + mode + "- | cmp back - && mkdir -p tree && " + program +
                              mode +
                              "--report report - tree < a.sym && cmp tree/a.pdb/*/a.sym a.sym && "
                              "grep -q '\"bytes_in\":'$(stat -c %s a.sym), report";
    EXPECT_EQ(std::system((begin + round).c_str()), 0) << round;
    const std::string bad = program + mode +
                            "- < a.pdb 2> err; test $? = 1 && "
                            "grep -q 'standard input is neither a text symbol file nor SYMB' err";
    EXPECT_EQ(std::system((begin + bad).c_str()), 0) << bad;
  }
}

// A drop folder that is converted again and again. After each run its files are an hour old, and
// the results half an hour.
class IfChangedTest : public ProgramTest {
 protected:
  void add(const std::string& name, const std::string& bytes) {
    set_age(temp_.file("in/" + name, bytes), 3600);
  }
  static void set_age(const std::string& path, int seconds) {
    static const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(path, now - std::chrono::seconds(seconds));
  }
  // The counts of the summary, without the time.
  std::string counts(std::vector<std::string> args = {}) {
    args.insert(args.end(), {"--standard", "--if-changed", "-r", temp_ / "in", tree_});
    const Result result = run(args);
    EXPECT_EQ(result.status, 0) << result.err;
    for (const auto& [folder, age] : {std::pair(temp_ / "in", 3600), std::pair(tree_, 1800)}) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) set_age(entry.path(), age);
      }
    }
    const size_t line = result.err.rfind("symforge: ");
    return result.err.substr(line + 10, result.err.rfind(", ") - line - 10);
  }
};

TEST_F(IfChangedTest, SkipsWhatIsUpToDate) {
  add("a.pdb", make_pdb(1));
  add("b.pdb", make_pdb(2));
  add("image.dll", make_pe(2, "b.pdb"));
  add("copy/b.pdb", make_pdb(2));
  add("t.sym", make_text(3, "t.pdb"));
  const std::string a = "/a.pdb/" + id_of(1);
  EXPECT_EQ(counts(), "4 converted, 0 failed, 0 skipped");
  const auto spoil = [&](const std::string& record, const char* old, const char* text) {
    const auto time = std::filesystem::last_write_time(record);
    std::string content = read_file(record);
    content.replace(content.find(old), std::string(old).size(), text);
    write_file(record, content);
    std::filesystem::last_write_time(record, time);
  };
  const auto move = [&](std::chrono::nanoseconds by) {
    const std::string result = tree_ + a + "/a.sym";
    std::filesystem::last_write_time(result, std::filesystem::last_write_time(result) + by);
  };
  const struct {
    const char* what;
    std::function<void()> change;
    std::vector<std::string> args;
    std::string counts;
  } cases[] = {
      {"a PDB of the future",
       [&] { set_age(temp_ / "in/a.pdb", -600); },
       {},
       "1 converted, 0 failed, 3"},
      {"no record of that", [] {}, {}, "1 converted, 0 failed, 3"},
      {"then none", [] {}, {}, "0 converted, 0 failed, 4"},
      {"a newer copy", [&] { set_age(temp_ / "in/copy/b.pdb", 900); }, {}, ""},
      {"a newer image", [&] { set_age(temp_ / "in/image.dll", 900); }, {}, ""},
      {"a missing result", [&] { std::filesystem::remove(tree_ + a + "/a.sym"); }, {}, "1 conv"},
      {"a result replaced in the same second", [&] { move(std::chrono::nanoseconds(1)); }, {}, "1"},
      {"a result replaced a second later", [&] { move(std::chrono::seconds(1)); }, {}, "1 conv"},
      {"an emptied result",
       [&] {
         std::filesystem::resize_file(tree_ + a + "/a.sym", 0);
         set_age(tree_ + a + "/a.sym", 1800);
       },
       {},
       "1 conv"},
      {"a missing record", [&] { std::filesystem::remove(tree_ + a + "/.a.sym.made"); }, {}, "1"},
      {"a version", [&] { spoil(tree_ + a + "/.a.sym.made", "1.50", "1.49"); }, {}, "1 converted"},
      {"an image arrives", [&] { add("a.exe", make_pe(1, "a.pdb")); }, {}, "1 converted"},
      {"and leaves", [&] { std::filesystem::remove(temp_ / "in/a.exe"); }, {}, "0 converted"},
      {"another option", [] {}, {"-i"}, "4 converted, 0 failed, 0 skipped"},
      {"another form", [] {}, {"-i", "-b"}, "4 converted, 0 failed, 0 skipped"},
      {"both again", [] {}, {"-i"}, "0 converted, 0 failed, 4 skipped"},
  };
  for (const auto& c : cases) {
    c.change();
    const std::string expected = c.counts.empty() ? "2 converted, 0 failed, 2 skipped" : c.counts;
    EXPECT_THAT(counts(c.args), StartsWith(expected)) << c.what;
  }
  const std::string result = tree_ + a + "/a.sym";
  std::filesystem::remove(result);
  std::filesystem::create_directory(result);
  set_age(result, 1800);
  EXPECT_NE(run({"--standard", "--if-changed", "-i", "-r", temp_ / "in", tree_}).status, 0)
      << "a folder cannot be up to date";
}

// A text and its image are converted together or not at all.
TEST_F(IfChangedTest, JoinsAgainAfterAChange) {
  add("t.sym", make_text(3, "t.pdb"));
  add("t.exe", make_pe(3, "t.pdb"));
  const std::string target = tree_ + "/t.pdb/" + id_of(3) + "/t.sym";
  std::string joined;
  for (const bool changed : {true, false, true}) {
    if (changed) set_age(temp_ / "in/t.sym", 900);
    struct stat before = {}, after = {};
    stat(target.c_str(), &before);
    const Result result = run({"--if-changed", "-r", temp_ / "in", tree_});
    EXPECT_EQ(result.status, 0);
    stat(target.c_str(), &after);
    EXPECT_EQ(before.st_mtim.tv_nsec != after.st_mtim.tv_nsec, changed);
    if (joined.empty()) joined = read_file(target);
    EXPECT_EQ(read_file(target), joined);
    EXPECT_THAT(joined, HasSubstr("INFO CODE_ID"));
    set_age(temp_ / "in/t.sym", 3600);
    for (const std::string name : {"t.sym", ".t.sym.made"}) {
      set_age(target.substr(0, target.rfind('/') + 1) + name, 1800);
    }
  }
}

}  // namespace
}  // namespace test_support
