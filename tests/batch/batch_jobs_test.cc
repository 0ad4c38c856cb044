// Several jobs at a time, several batches on one tree, and batches that are ended.

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/batch_inputs.h"
#include "tests/support/program.h"

namespace test_support {
namespace {

// Files that meet in the tree, so that the order of conversions shows: the last of several texts of
// one module is kept, the first link, the first image of an identifier; the name of a link can be
// the identifier of another module; the first conversion of a name makes its folder.
void add_files_that_meet(BatchInputs& in) {
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

TEST(BatchJobsTest, MakesTheSameTreeWithSeveralJobs) {
  const TemporaryDirectory temp;
  BatchInputs in(temp);
  in.add_good_files(8);
  in.add_bad_files();
  add_files_that_meet(in);
  std::vector<std::vector<std::string>> modes = {{"--standard", "-q", "--no-sync"}};
  if (!kSlowProgram) modes.insert(modes.end(), {{"-b"}, {}});
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
class BlockedBatchTest : public ProgramTest {
 protected:
  void SetUp() override {
    for (uint32_t i = 0; i < 3; ++i) {
      temp_.file(numbered("in/", i, ".exe"), make_pe(i, "a.pdb"));
      const std::string folder = temp_.folder("tree/a.pdb/" + id_of(i));
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
  const std::string folder = tree + "/a.pdb/" + id_of(1);
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
class SharedTreeTest : public ProgramTest {
 protected:
  void SetUp() override {
    for (uint32_t i = 0; i < 6; ++i) {
      inputs_.pair(i, numbered("build", i, "/app.pdb"), numbered("build", i, "/app.exe"), 500);
      inputs_.text(numbered("text", i, ".sym"), make_text(5000 + i, "t.pdb", 20000));
    }
    inputs_.add_good_files(4);
    inputs_.pe("joined.exe", make_pe(5000, "t.pdb"));
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

  BatchInputs inputs_{temp_};
  std::string expected_ = temp_.folder("expected");
  Tree wanted_;
};

TEST_F(SharedTreeTest, SurvivesEightConcurrentBatches) {
  std::vector<pid_t> batches;
  for (int i = 0; i < 8; ++i) batches.push_back(start({"-r", temp_ / "in", tree_}));
  while (waitpid(batches.back(), nullptr, WNOHANG) == 0) expect_complete_targets(tree_);
  batches.pop_back();
  for (const pid_t batch : batches) wait_for_success(batch);
  EXPECT_EQ(list_tree(tree_), wanted_);
}

// SYMFORGE_KILL_ROUNDS sets the number of rounds; the default is small.
TEST_F(SharedTreeTest, SurvivesKillsAtAnyMoment) {
  const char* wish = std::getenv("SYMFORGE_KILL_ROUNDS");
  const int rounds = wish != nullptr ? std::atoi(wish) : kSlowProgram ? 1 : 5;
  const auto begin = std::chrono::steady_clock::now();
  wait_for_success(start({"-r", temp_ / "in", temp_.folder("timed")}));
  const auto duration = std::chrono::steady_clock::now() - begin;

  std::minstd_rand random(20240501);
  for (int round = 0; round < rounds; ++round) {
    std::vector<pid_t> writers;
    for (int i = 0; i < 4; ++i) writers.push_back(start({"-r", temp_ / "in", tree_}));
    for (const pid_t writer : writers) {
      std::this_thread::sleep_for(duration * (random() % 1000) / 1000);
      kill(-writer, SIGKILL);
      waitpid(writer, nullptr, 0);
    }
    expect_complete_targets(tree_);
  }
  wait_for_success(start({"-r", temp_ / "in", tree_}));
  EXPECT_EQ(targets(tree_), wanted_);
}

}  // namespace
}  // namespace test_support
