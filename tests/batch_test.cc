// Batches: which files are found, how they are paired and in which order converted; the effect of a
// bad file; several batches on one tree; a killed batch.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "builders/bytes.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "tests/support/process.h"

namespace {

using namespace builders;
using namespace test_support;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

Guid guid_of(uint32_t number) { return {.data1 = number}; }

std::string make_pdb(uint32_t number, uint32_t functions = 3) {
  PdbBuilder pdb(512);
  pdb.info.guid = guid_of(number);
  pdb.dbi.age = 10;
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x10000, .raw_size = 0x10000});
  ModuleBuilder& module = pdb.add_module("m.obj");
  for (uint32_t i = 0; i < functions; ++i) {
    module.proc({.name = "f" + std::to_string(i), .offset = 16 * i, .length = 16}).end();
  }
  return pdb.build().bytes;
}

std::string make_pe(uint32_t number, const std::string& pdb_name) {
  PeBuilder pe;
  pe.codeview(guid_of(number), 10, "C:\\out\\" + pdb_name);
  pe.time_stamp(0x5F000000 + number);
  return pe.build();
}

std::string make_text(uint32_t number, const std::string& pdb_name, size_t functions = 3) {
  std::string text =
      "MODULE windows x86_64 " + debug_id(guid_of(number), 10) + " " + pdb_name + "\n";
  for (size_t i = 0; i < functions; ++i) text += "PUBLIC " + std::to_string(i) + " 0 name\n";
  return text;
}

// A directory "in" of inputs, and the order in which a batch has to convert them.
class Inputs {
 public:
  explicit Inputs(const TemporaryDirectory& temp) : temp_(temp) {}

  void pair(uint32_t number, const std::string& pdb, const std::string& exe,
            uint32_t functions = 3) {
    pe_with_pdb_[add(pes_, exe, make_pe(number, "linked.pdb"))] =
        add(pdbs_, pdb, make_pdb(number, functions));
  }
  void pdb(const std::string& name, const std::string& bytes) { add(pdbs_, name, bytes); }
  void pe(const std::string& name, const std::string& bytes) { add(pes_, name, bytes); }
  void text(const std::string& name, const std::string& bytes) { add(syms_, name, bytes); }
  // The arguments of the single conversions that a batch into `tree` is equivalent to.
  std::vector<std::vector<std::string>> conversions(const std::string& tree) const {
    std::vector<std::vector<std::string>> runs;
    std::set<std::string> left = pdbs_;
    for (const std::string& sym : syms_) runs.push_back({"-s", tree, sym});
    for (const std::string& exe : pes_) {
      runs.push_back({"-s", tree, "-e", exe});
      if (const auto pdb = pe_with_pdb_.find(exe); pdb != pe_with_pdb_.end()) {
        runs.back().push_back(pdb->second);
        left.erase(pdb->second);
      }
    }
    for (const std::string& pdb : left) runs.push_back({"-s", tree, pdb});
    return runs;
  }

 private:
  std::string add(std::set<std::string>& set, const std::string& name, const std::string& bytes) {
    return *set.insert(temp_.file("in/" + name, bytes)).first;
  }

  const TemporaryDirectory& temp_;
  std::set<std::string> syms_, pes_, pdbs_;
  std::map<std::string, std::string> pe_with_pdb_;
};

std::string numbered(const std::string& stem, uint32_t number, const std::string& extension) {
  return stem + std::to_string(number) + extension;
}

// Pairs with unrelated names in two directories, PDBs and PEs without a partner, texts with their
// PE.
void add_good_files(Inputs& in, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    in.pair(i, numbered("symbols/p", i, i % 3 ? ".pdb" : ".PDB"),
            numbered("bin/image", count - i, i % 2 ? ".dll" : ".Exe"));
    in.pdb(numbered("lone", i, ".pdb"), make_pdb(1000 + i));
    in.text(numbered("text/t", i, i % 2 ? ".sym" : ".SYM"), make_text(2000 + i, "t.pdb"));
    if (i % 2) in.pe(numbered("bin/joined", i, ".exe"), make_pe(2000 + i, "t.pdb"));
  }
}

void add_bad_files(Inputs& in, const TemporaryDirectory& temp) {
  const std::string pdb = make_pdb(3000);
  const std::string pe = make_pe(3001, "a.pdb");
  const std::string text = make_text(3002, "cut.pdb");
  in.pdb("bad/empty.pdb", "");
  in.pe("bad/empty.exe", "");
  in.text("bad/empty.sym", "");
  for (uint32_t i = 1; i < 16; ++i) {
    in.pdb(numbered("bad/cut", i, ".pdb"), pdb.substr(0, pdb.size() * i / 16));
    in.pe(numbered("bad/cut", i, ".dll"), pe.substr(0, pe.size() * i / 16));
    in.text(numbered("bad/cut", i, ".sym"), text.substr(0, text.size() * i / 16));
  }
  in.text("bad/symb.sym", "SYMB" + std::string(200, '\xFF'));
  in.pe("bad/no_debug_record.exe", PeBuilder().build());
  in.pe("bad/32bit.exe", PeBuilder(false).build());
  in.pe("bad/lone.exe", make_pe(3003, "nowhere.pdb"));
  temp.file("in/bad/readme.txt", pdb);
  temp.file("in/.hidden/a.pdb", make_pdb(3004));
  temp.file("in/.hidden.pdb", make_pdb(3005));
  std::string foreign = pdb;
  foreign[0] = 'X';
  in.pdb("bad/foreign.pdb", foreign);
}

TEST(BatchTest, MatchesSingleConversions) {
  const TemporaryDirectory temp;
  Inputs in(temp);
  add_good_files(in, 32);
  add_bad_files(in, temp);
  in.pair(4000, "folder.pdb/a.pdb", "folder.pdb/a.dll");
  in.pe("folder.pdb/b_second_of_its_identifier.dll", make_pe(4000, "a.pdb"));
  ASSERT_GE(list_tree(temp / "in").size(), 200u);

  const std::string tree = temp.folder("tree");
  const std::string expected = temp.folder("expected");
  EXPECT_EQ(run({"-r", temp / "in", tree}).status, 0);
  for (const auto& args : in.conversions(expected)) run(args);
  EXPECT_EQ(list_tree(tree), list_tree(expected));
}

// Files that meet in the tree, so that the order of conversions shows: the last of several texts of
// one module is kept, the first link, the first image of an identifier; the name of a link can be
// the identifier of another module; the first conversion of a name makes its folder.
void add_files_that_meet(Inputs& in) {
  for (uint32_t i = 0; i < 20; ++i) {
    const std::string folder = numbered("meet", i, "/");
    in.text(folder + "t.sym", make_text(5000 + i % 3, "t.pdb", 10 + 500 * (i % 7)));
    in.text(folder + "linked.sym", "MODULE windows x86_64 ID" + std::to_string(i) +
                                       " t.pdb\nINFO CODE_ID ID" + std::to_string(i * 7 % 20) +
                                       " t.exe\n");
    in.pair(5010 + i % 5, folder + "app.pdb", folder + "app.exe", 5 + 40 * (i % 4));
    in.pdb(folder + "t.pdb", make_pdb(5000 + i % 4, 1 + i));
    in.pe(folder + "joined.dll", make_pe(5000 + i % 3, "t.pdb"));
  }
}

std::vector<std::string> sorted_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST(BatchTest, MakesTheSameTreeWithSeveralJobs) {
  const TemporaryDirectory temp;
  Inputs in(temp);
  add_good_files(in, 8);
  add_bad_files(in, temp);
  add_files_that_meet(in);
  const std::vector<std::string> modes[] = {{"-b"}, {}, {"--standard", "-q", "--no-sync"}};
  for (const std::vector<std::string>& mode : modes) {
    Tree trees[2];
    const auto batch = [&](const std::string& jobs, Tree& tree) {
      std::vector<std::string> args = mode;
      args.insert(args.end(), {"-j", jobs, "-r", "in", temp.folder("tree")});
      const Result result = run(args, {.directory = temp.path()});
      tree = list_tree(temp / "tree");
      std::filesystem::remove_all(temp / "tree");
      return result;
    };
    const Result expected = batch("1", trees[0]);
    const Result result = batch("7", trees[1]);
    EXPECT_TRUE(trees[0] == trees[1]);
    EXPECT_EQ(result.status, expected.status);
    // Default mode prints addresses, which differ.
    if (mode.size() < 2) continue;
    EXPECT_GT(sorted_lines(result.err).size(), 50u);
    EXPECT_EQ(sorted_lines(result.err), sorted_lines(expected.err));
  }
}

TEST(BatchTest, ReportsEachFileOnceAndSucceedsForOneGoodOne) {
  const TemporaryDirectory temp;
  Inputs in(temp);
  const std::string tree = temp.folder("tree");
  in.pe("a.exe", make_pe(1, "a.pdb"));
  in.pdb("foreign.pdb",
         "no PDB at all, but long enough to be read as one: " + std::string(64, 'x'));
  const std::string batch_in = temp / "in";

  Result result = run({"-r", batch_in, tree});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("PE file without matching pdb or sym file"));
  const std::string report = "Failed to convert symbol file " + batch_in + "/foreign.pdb.\n";
  const size_t at = result.err.find(report);
  EXPECT_NE(at, std::string::npos);
  EXPECT_EQ(result.err.find("foreign.pdb", at + report.size()), std::string::npos);

  in.text("b.sym", make_text(1, "a.pdb"));
  result = run({"-r", batch_in, tree});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.err, Not(HasSubstr("a.exe")));
}

// A PDB that kills the process reading its identifier must not stop the pairing.
TEST(BatchTest, ContinuesAfterAChildKilledByASignal) {
  const TemporaryDirectory temp;
  Inputs in(temp);
  std::string deadly = make_pdb(1);
  put_u32(deadly, 44, 0);  // a stream directory of no bytes
  in.pdb("a.pdb", deadly);
  in.pair(2, "b.pdb", "c.exe");
  in.pdb("d.pdb", deadly);
  const std::string tree = temp.folder("tree");
  const Result result = run({"-r", "in", "tree"}, {.directory = temp.path()});
  EXPECT_EQ(result.status, 0);
  for (const char* path : {"in/a.pdb", "in/d.pdb"}) {
    const std::string message =
        std::string(SYMFORGE_PROGRAM) + " [" + path + "] was terminated by signal: Aborted\n";
    EXPECT_THAT(result.err, HasSubstr("symforge: " + message.substr(0, 127)));
  }
  const std::string id = debug_id(guid_of(2), 10);
  const Tree converted = list_tree(tree);
  EXPECT_EQ(converted.count("b.pdb/" + id + "/b.sym"), 1u);
  EXPECT_EQ(converted.at("b.pdb/5F0000024000000"), "link " + id);
}

// Closed standard streams and ignored signals: pairing reads identifiers through a pipe and waits
// for its children.
TEST(BatchTest, PairsWithClosedStreamsAndIgnoredSignals) {
  for (const std::string parent : {">&- 2>&- ", "<&- 2>&- ", "env --ignore-signal=CHLD "}) {
    const TemporaryDirectory temp;
    Inputs in(temp);
    in.pair(1, "a.pdb", "b.exe");
    const std::string tree = temp.folder("tree");
    const std::string batch = parent + SYMFORGE_PROGRAM " -r " + temp / "in" + " " + tree;
    EXPECT_EQ(std::system(batch.c_str()), 0) << parent;
    EXPECT_EQ(list_tree(tree).count("a.pdb/5F0000014000000"), 1u) << parent;
  }
}

TEST(BatchTest, PassesItsOptionsOn) {
  const TemporaryDirectory temp;
  Inputs in(temp);
  in.pair(1, "a.pdb", "b.exe");
  const std::string tree = temp.folder("tree");
  EXPECT_EQ(run({"-r", "-b", "-i", temp / "in/a.pdb", tree}).status, 0);
  EXPECT_EQ(run({"-r", "-b", temp / "in", tree}).status, 0);
  const std::string id = debug_id(guid_of(1), 10);
  const std::string image = list_tree(tree).at("a.pdb/" + id + "/a.symb");
  EXPECT_EQ(image.substr(0, 14), "file 0600 SYMB");
}

// An unreadable directory ends the batch before any conversion.
TEST(BatchWalkTest, StopsAtUnreadableDirectories) {
  const TemporaryDirectory temp;
  chmod(temp.path().c_str(), 0755);
  const std::string in = temp.folder("in");
  const std::string tree = temp.folder("tree");
  temp.file("in/a.sym", make_text(1, "a.pdb"));
  const auto stops_with = [&](const std::string& message) {
    const Result result = run({"-r", in, tree}, {.as_nobody = true});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "symforge: " + message + "\n");
    EXPECT_EQ(list_tree(tree), Tree());
  };
  std::filesystem::create_symlink("nowhere", in + "/dangling");
  stops_with("Failed to stat " + in + "/dangling");
  std::filesystem::remove(in + "/dangling");

  temp.folder("in/closed");
  chmod((in + "/closed").c_str(), 0);
  stops_with("Failed to opendir " + in + "/closed");
  std::filesystem::remove(in + "/closed");

  EXPECT_EQ(run({"-r", temp / "missing", tree}).err,
            "symforge: Failed to stat " + (temp / "missing") + "\n");
}

// A batch re-runs its own executable, whatever its argv[0] and whatever PATH finds under that name.
TEST(BatchTest, RunsItsOwnProgramUnderABareName) {
  const TemporaryDirectory temp;
  const std::string in = temp.folder("in");
  const std::string tree = temp.folder("tree");
  temp.file("in/a.sym", make_text(1, "a.pdb"));
  const std::string planted = temp.file("in/symforge", "#!/bin/sh\ntouch " + temp / "ran");
  chmod(planted.c_str(), 0755);
  const Result result = run({"-r", in, tree}, {.directory = in, .name = "symforge"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(list_tree(tree).size(), 3u);
  EXPECT_FALSE(std::filesystem::exists(temp / "ran"));
}

// A FIFO blocks a batch neither as an input nor as an image of one.
TEST(BatchWalkTest, SkipsEverythingButRegularFiles) {
  const TemporaryDirectory temp;
  const std::string in = temp.folder("in");
  const std::string tree = temp.folder("tree");
  temp.file("in/a.pdb", make_pdb(1));
  for (const char* name : {"a.exe", "b.pdb", "c.sym", "d.dll"}) {
    ASSERT_EQ(mkfifo((in + "/" + name).c_str(), 0600), 0);
  }
  for (const std::string mode : {"-b", "--standard"}) {
    EXPECT_EQ(run({"-r", mode, in, tree}).status, 0) << mode;
  }
}

TEST(BatchWalkTest, HoldsFewDescriptorsInDeepTrees) {
  const TemporaryDirectory temp;
  std::string deep = "in";
  for (int i = 0; i < 300; ++i) deep += "/d";
  temp.file(deep + "/a.sym", make_text(1, "a.pdb"));
  const std::string tree = temp.folder("tree");
  const Result result = run({"-r", temp / "in", tree}, {.descriptors = 8});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(list_tree(tree).size(), 3u);
}

std::vector<std::string> children_of(pid_t pid) {
  const std::string id = std::to_string(pid);
  std::ifstream file("/proc/" + id + "/task/" + id + "/children");
  return {std::istream_iterator<std::string>(file), {}};
}

template <typename Condition>
bool wait_while(const Condition& condition) {
  for (int i = 0; i < 1000 && condition(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return !condition();
}

// Children block on FIFOs that replace the symbol files to which they have to add images.
class BlockedBatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (uint32_t i = 0; i < 3; ++i) {
      temp_.file(numbered("in/", i, ".exe"), make_pe(i, "a.pdb"));
      const std::string folder = temp_.folder("tree/a.pdb/" + debug_id(guid_of(i), 10));
      ASSERT_EQ(mkfifo((folder + "/a.sym").c_str(), 0600), 0);
    }
  }
  // Starts a batch, and waits until it has so many children.
  pid_t start_batch(const std::vector<std::string>& options, size_t children) {
    std::vector<std::string> args = {"-r", temp_ / "in", temp_ / "tree"};
    args.insert(args.end(), options.begin(), options.end());
    const pid_t batch = start(args);
    EXPECT_TRUE(wait_while([&] { return children_of(batch).size() != children; }));
    return batch;
  }
  static void end(pid_t batch) {
    kill(batch, SIGKILL);
    waitpid(batch, nullptr, 0);
  }

  const TemporaryDirectory temp_;
};

TEST_F(BlockedBatchTest, TerminatesItsChildrenWithItself) {
  const pid_t batch = start_batch({"-j2"}, 2);
  const std::vector<std::string> children = children_of(batch);
  end(batch);
  for (const std::string& child : children) {
    EXPECT_TRUE(wait_while([&] { return std::filesystem::exists("/proc/" + child + "/exe"); }));
  }
}

TEST_F(BlockedBatchTest, StartsOneChildWhileMemoryIsShort) {
  end(start_batch({"-j3", "--max-memory=1M"}, 3));
  const pid_t batch = start_batch({"-j3", "--max-memory=1000T"}, 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(children_of(batch).size(), 1u);
  end(batch);
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
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"a.pdb", "b.sym"},
       "symbol path is not a folder: b.sym (several inputs need a tree that is named with '-s')"},
      {{"--standard", "b.sym", "tree", "a.pdb"},
       "several inputs need a tree that is named with '-s'"},
      {{"--standard", "-s", "tree", "a.pdb", "in"},
       "output symbol path is already set in -s option: tree"},
      {{"-e", "a.exe", "-s", "tree", "a.pdb", "b.sym"}, "option '-e' needs a single input"},
      {{"-s", "tree", "a.pdb", "-"}, "standard input must be the only input"},
      {{"--files-from", "list"}, "options '--files-from' and '--if-changed' need a symbol tree"},
      {{"--files-from", "list", "-s", "tree"},
       "failed to read the list list: No such file or directory"},
      {{"-s", "tree", "missing", "b.sym"}, "Failed to stat missing"},
  };
  for (const auto& c : cases) {
    const Result result = run(c.args, {.directory = temp.path()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "symforge: " + c.message + "\n");
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
                              mode + "- tree < a.sym && cmp tree/a.pdb/*/a.sym a.sym";
    EXPECT_EQ(std::system((begin + round).c_str()), 0) << round;
    const std::string bad = program + mode +
                            "- < a.pdb 2> err; test $? = 1 && "
                            "grep -q 'standard input is neither a text symbol file nor SYMB' err";
    EXPECT_EQ(std::system((begin + bad).c_str()), 0) << bad;
  }
}

// A drop folder that is converted again and again. After each run its files are an hour old, and
// the results half an hour.
class IfChangedTest : public ::testing::Test {
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

  TemporaryDirectory temp_;
  std::string tree_ = temp_.folder("tree");
};

TEST_F(IfChangedTest, SkipsWhatIsUpToDate) {
  add("a.pdb", make_pdb(1));
  add("b.pdb", make_pdb(2));
  add("image.dll", make_pe(2, "b.pdb"));
  add("copy/b.pdb", make_pdb(2));
  add("t.sym", make_text(3, "t.pdb"));
  const std::string a = "/a.pdb/" + debug_id(guid_of(1), 10);
  EXPECT_EQ(counts(), "4 converted, 0 failed, 0 skipped");
  const auto spoil = [&](const std::string& record, const char* old, const char* text) {
    const auto time = std::filesystem::last_write_time(record);
    std::string content = read_file(record);
    content.replace(content.find(old), std::string(old).size(), text);
    write_file(record, content);
    std::filesystem::last_write_time(record, time);
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
      {"a replaced result",
       [&] {
         run({temp_ / "in/a.pdb", tree_});
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
}

// A text and its image are converted together or not at all.
TEST_F(IfChangedTest, JoinsAgainAfterAChange) {
  add("t.sym", make_text(3, "t.pdb"));
  add("t.exe", make_pe(3, "t.pdb"));
  const std::string target = tree_ + "/t.pdb/" + debug_id(guid_of(3), 10) + "/t.sym";
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

bool has_temporary_file(const std::string& folder) {
  if (!std::filesystem::exists(folder)) return false;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension().string().size() == sizeof ".symXXXXXX" - 1) return true;
  }
  return false;
}

// Signals that arrive while a large file is written.
TEST(EndSignalTest, RemovesTheUnfinishedFile) {
  signal(SIGINT, SIG_DFL);  // scripts start programs in the background with this signal ignored
  const TemporaryDirectory temp;
  const std::string text = temp.file("in/a.sym", make_text(1, "a.pdb", 2'000'000));
  temp.file("in/b.sym", make_text(2, "b.pdb"));
  const std::string tree = temp.folder("tree");
  const std::string folder = tree + "/a.pdb/" + debug_id(guid_of(1), 10);
  const struct {
    std::vector<std::string> args;
    int signal;
    int status;  // exit status; 0: ended by the signal
  } cases[] = {{{"-r", temp / "in", tree}, SIGINT, 130},
               {{"-j2", "-r", "--standard", temp / "in", tree}, SIGTERM, 143},
               {{text, tree}, SIGTERM, 0}};
  for (const auto& c : cases) {
    bool seen = false;
    for (int round = 0; round < 50 && !seen; ++round) {
      const pid_t pid = start(c.args);
      int status = 0;
      while (!(seen = has_temporary_file(folder)) && waitpid(pid, &status, WNOHANG) == 0) {
      }
      if (!seen) continue;
      // (on a busy machine it can end before this process runs again)
      kill(pid, SIGSTOP);
      waitpid(pid, &status, WUNTRACED);
      seen = WIFSTOPPED(status);
      if (!seen) continue;
      kill(pid, c.signal);
      kill(pid, SIGCONT);
      waitpid(pid, &status, 0);
      EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : 0, c.status);
      EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, c.status == 0 ? c.signal : 0);
    }
    EXPECT_TRUE(seen);
    EXPECT_FALSE(has_temporary_file(folder));
  }
}

// What a batch prints on a terminal.
std::string terminal_output(const std::vector<std::string>& args) {
  std::string command = "exec " SYMFORGE_PROGRAM;
  for (const std::string& arg : args) command += " " + arg;
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
  }
  std::string output;
  char block[4096];
  for (ssize_t got; (got = read(terminal, block, sizeof block)) > 0;) {
    output.append(block, static_cast<size_t>(got));
  }
  close(terminal);
  waitpid(pid, nullptr, 0);
  return output;
}

TEST(BatchProgressTest, IsShownOnTerminalsAlone) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  const std::string in = temp.folder("in");
  temp.file("in/a.sym", make_text(1, "a.pdb"));
  temp.file("in/b\x1B.sym", "MODULE no\n");
  const std::string progress = "\r0 done, 0 failed, 2 left, 0.0/s: " + in + "/a.sym";
  const std::string message =
      "symforge: " + in + "/b\\x1b.sym: the text has no complete MODULE line";
  const std::string summary =
      "symforge: 1 converted, 1 failed (" + in + "/b\\x1b.sym), 0 skipped, ";
  const std::string shown = terminal_output({"--standard", "-r", in, tree});
  EXPECT_THAT(shown, StartsWith(progress));
  EXPECT_THAT(shown, HasSubstr(" \r" + message + "\r\n"));
  EXPECT_THAT(shown, HasSubstr(" \r" + summary));
  EXPECT_THAT(terminal_output({"-r", in, tree}), StartsWith(progress));
  EXPECT_EQ(terminal_output({"--standard", "-q", "-r", in, tree}), message + "\r\n");

  const Result result = run({"--standard", "-r", in, tree});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, StartsWith(message + "\n" + summary));
  EXPECT_EQ(run({"-r", temp / "in/a.sym", tree}).err, "");
}

// The completed files of a tree, by name; temporary files of a killed process are not included.
Tree targets(const std::string& root) {
  Tree tree = list_tree(root);
  std::erase_if(tree, [](const auto& entry) {
    return entry.second.starts_with("file") && !entry.first.ends_with(".sym");
  });
  return tree;
}

void wait_for_success(pid_t pid) {
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
}

// A directory with several builds of one module, large files, and the tree that one batch creates
// from it.
class SharedTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (uint32_t i = 0; i < 6; ++i) {
      in_.pair(i, numbered("build", i, "/app.pdb"), numbered("build", i, "/app.exe"), 500);
      in_.text(numbered("text", i, ".sym"), make_text(5000 + i, "t.pdb", 20000));
    }
    add_good_files(in_, 4);
    in_.pe("joined.exe", make_pe(5000, "t.pdb"));
    EXPECT_EQ(run({"-r", temp_ / "in", expected_}).status, 0);
    wanted_ = list_tree(expected_);
  }

  // Every visible target is complete: it is the result of a batch, or of the step before the PE was
  // added.
  void expect_complete_targets(const std::string& tree) const {
    for (const auto& [path, content] : wanted_) {
      if (!content.starts_with("file")) continue;
      std::ifstream file(tree + "/" + path, std::ios::binary);
      if (!file) continue;
      const std::string found((std::istreambuf_iterator<char>(file)), {});
      const std::string whole = content.substr(sizeof "file 0600");
      EXPECT_TRUE(found == whole || found == whole.substr(0, whole.find("INFO CODE_ID"))) << path;
    }
  }

  TemporaryDirectory temp_;
  Inputs in_{temp_};
  std::string expected_ = temp_.folder("expected");
  Tree wanted_;
};

TEST_F(SharedTreeTest, SurvivesEightConcurrentBatches) {
  const std::string tree = temp_.folder("tree");
  std::vector<pid_t> batches;
  for (int i = 0; i < 8; ++i) batches.push_back(start({"-r", temp_ / "in", tree}));
  while (waitpid(batches.back(), nullptr, WNOHANG) == 0) expect_complete_targets(tree);
  batches.pop_back();
  for (const pid_t batch : batches) wait_for_success(batch);
  EXPECT_EQ(list_tree(tree), wanted_);
}

// SYMFORGE_KILL_ROUNDS sets the number of rounds; the default is small.
TEST_F(SharedTreeTest, SurvivesKillsAtAnyMoment) {
  const char* wish = std::getenv("SYMFORGE_KILL_ROUNDS");
  const int rounds = wish != nullptr ? std::atoi(wish) : 5;
  const std::string tree = temp_.folder("tree");
  const auto begin = std::chrono::steady_clock::now();
  wait_for_success(start({"-r", temp_ / "in", temp_.folder("timed")}));
  const auto duration = std::chrono::steady_clock::now() - begin;

  std::minstd_rand random(20240501);
  for (int round = 0; round < rounds; ++round) {
    std::vector<pid_t> writers;
    for (int i = 0; i < 4; ++i) writers.push_back(start({"-r", temp_ / "in", tree}));
    for (const pid_t writer : writers) {
      std::this_thread::sleep_for(duration * (random() % 1000) / 1000);
      kill(-writer, SIGKILL);
      waitpid(writer, nullptr, 0);
    }
    expect_complete_targets(tree);
  }
  wait_for_success(start({"-r", temp_ / "in", tree}));
  EXPECT_EQ(targets(tree), wanted_);
}

}  // namespace
