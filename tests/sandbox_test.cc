// What a conversion can do in its sandbox: a library loaded into the program tries to open files,
// connect and execute when the result is written.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "builders/bytes.h"
#include "tests/support/process.h"

namespace {

using namespace builders;
using namespace test_support;

const std::string kPdb = SYMFORGE_FIXTURES "/engine64.pdb";

// The attempts of tests/planted.cc and whether they succeeded, in order.
std::vector<std::string> attempts(const std::string& report) {
  std::vector<std::string> lines;
  for (size_t at = 0, end; (end = report.find('\n', at)) != std::string::npos; at = end + 1) {
    const std::string line = report.substr(at, end - at);
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

TEST(SandboxTest, DeniesWhatAConversionDoesNotNeed) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  const std::string text = temp.file("a.sym", run({kPdb}).out);
  ASSERT_EQ(run({"-b", text, tree}).status, 0);
  const std::string image = tree + "/engine64.pdb/515D2ED965ADFF5D4C4C44205044422E1/engine64.symb";
  const std::vector<std::vector<std::string>> conversions = {
      {kPdb}, {kPdb, tree}, {"--standard", kPdb, tree}, {text, tree}, {"-b", text}, {image, tree},
  };
  for (const auto& conversion : conversions) {
    EXPECT_EQ(run_planted(conversion), kAllFail) << ::testing::PrintToString(conversion);
  }
}

// Without the sandbox all attempts succeed.
TEST(SandboxTest, CanBeLeftOut) { EXPECT_EQ(run_planted({"--no-sandbox", kPdb}), kAllWork); }

// Children of a batch have their own sandboxes. They get an empty environment, so the library is
// not loaded. A batch produces the same tree as the single conversions.
TEST(SandboxTest, DoesNotChangeResults) {
  const TemporaryDirectory temp;
  const std::string in = temp.folder("in");
  for (const char* name : {"engine64.pdb", "engine64.exe", "engine32.pdb", "engine32.exe"}) {
    std::filesystem::copy(std::string(SYMFORGE_FIXTURES) + "/" + name, in);
  }
  for (const std::string mode : {"-b", "--standard"}) {
    const std::string with = temp.folder("with" + mode);
    const std::string without = temp.folder("without" + mode);
    const Result result = run({"-r", mode, in, with});
    EXPECT_EQ(run({"-r", mode, "--no-sandbox", in, without}).status, result.status);
    EXPECT_EQ(list_tree(with), list_tree(without));
    EXPECT_FALSE(list_tree(with).empty());
  }
}

// A directory of the tree may be a link to another directory, for every kind of input.
TEST(SandboxTest, FollowsLinksInPlaceOfDirectories) {
  const TemporaryDirectory temp;
  const std::string tree = temp.folder("tree");
  const std::string elsewhere = temp.folder("elsewhere");
  std::filesystem::create_directory_symlink(elsewhere, tree + "/engine64.pdb");
  const std::string text = run({kPdb}).out;
  const std::string sym = temp.file("a.sym", text);
  const std::string symb = temp.file("a.symb", run({"-b", sym}).out);
  for (const std::string& input : {kPdb, sym, symb}) {
    EXPECT_EQ(run({input, tree}).err, "");
    EXPECT_EQ(list_tree(elsewhere).size(), 3u) << input;  // directory, file and link
    std::filesystem::remove_all(elsewhere);
    std::filesystem::create_directory(elsewhere);
  }
}

}  // namespace
