// What a conversion can do in its sandbox: a library loaded into the program tries to open files,
// connect and execute when the result is written.

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/program.h"

namespace test_support {
namespace {

const std::string kPdb = kFixtures + "engine64.pdb";

// The attempts of tests/planted.cc and whether they succeeded, in order.
std::vector<std::string> attempts(const std::string& report) {
  std::vector<std::string> lines;
  for (const std::string& line : split(report, '\n')) {
    if (line.starts_with("planted: ")) lines.push_back(line.substr(9));
  }
  return lines;
}

std::vector<std::string> run_planted(std::vector<std::string> args) {
  const Result result = run(args, {.preload = SYMFORGE_PLANTED});
  EXPECT_EQ(result.status, 0) << result.err;
  return attempts(result.err);
}

using Attempts = std::vector<std::string>;
const Attempts kAllFail = {"read a file: refused",    "write a file: refused",
                           "make a socket: refused",  "execute: refused",
                           "make a process: refused", "make code: refused"};
const Attempts kAllWork = {"read a file: works", "write a file: works",   "make a socket: works",
                           "execute: works",     "make a process: works", "make code: works"};

using SandboxTest = ProgramTest;

TEST_F(SandboxTest, DeniesWhatAConversionDoesNotNeed) {
  const std::string text = temp_.file("a.sym", run({kPdb}).out);
  ASSERT_EQ(run({"-b", text, tree_}).status, 0);
  const std::string image = tree_ + "/engine64.pdb/" + kEngineId + "/engine64.symb";
  const std::vector<std::vector<std::string>> conversions = {
      {kPdb},        {kPdb, tree_}, {"--standard", kPdb, tree_},
      {text, tree_}, {"-b", text},  {image, tree_},
  };
  for (const auto& conversion : conversions) {
    EXPECT_EQ(run_planted(conversion), kAllFail) << ::testing::PrintToString(conversion);
  }
}

// Without the sandbox all attempts succeed.
TEST_F(SandboxTest, CanBeLeftOut) { EXPECT_EQ(run_planted({"--no-sandbox", kPdb}), kAllWork); }

// Children of a batch have their own sandboxes. They get an empty environment, so the library is
// not loaded. A batch produces the same tree as the single conversions.
TEST_F(SandboxTest, DoesNotChangeResults) {
  for (const char* name : {"engine64.pdb", "engine64.exe", "engine32.pdb", "engine32.exe"}) {
    std::filesystem::copy(kFixtures + name, in_);
  }
  for (const std::string mode : {"-b", "--standard"}) {
    const std::string with = temp_.folder("with" + mode);
    const std::string without = temp_.folder("without" + mode);
    const Result result = run({"-r", mode, in_, with});
    EXPECT_EQ(run({"-r", mode, "--no-sandbox", in_, without}).status, result.status);
    EXPECT_EQ(list_tree(with), list_tree(without));
    EXPECT_FALSE(list_tree(with).empty());
  }
}

// A directory of the tree may be a link to another directory, for every kind of input.
TEST_F(SandboxTest, FollowsLinksInPlaceOfDirectories) {
  const std::string elsewhere = temp_.folder("elsewhere");
  std::filesystem::create_directory_symlink(elsewhere, tree_ + "/engine64.pdb");
  const std::string text = run({kPdb}).out;
  const std::string sym = temp_.file("a.sym", text);
  const std::string symb = temp_.file("a.symb", run({"-b", sym}).out);
  for (const std::string& input : {kPdb, sym, symb}) {
    EXPECT_EQ(run({input, tree_}).err, "");
    EXPECT_EQ(list_tree(elsewhere).size(), 3u) << input;  // directory, file and link
    std::filesystem::remove_all(elsewhere);
    std::filesystem::create_directory(elsewhere);
  }
}

}  // namespace
}  // namespace test_support
