// Complete real fixtures: the output for each is compared byte for byte with the reviewed text in
// the repository (scripts/make_goldens regenerates it).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builders/bytes.h"
#include "tests/support/lines.h"
#include "tests/support/process.h"

namespace test_support {

using namespace builders;
namespace {

const std::string kData = SYMFORGE_FIXTURES "/";

std::string golden(const std::string& name) { return read_file(kData + name + ".sym"); }
std::string pdb(const std::string& name) { return kData + name + ".pdb"; }

// The parameter is the name of a fixture. Its image is next to its PDB, where symforge finds it.
class GoldenTest : public testing::TestWithParam<const char*> {};

// The standard output of a run, which must succeed without messages.
std::string converted(const std::vector<std::string>& args) {
  const Result result = run(args);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  return result.out;
}

TEST_P(GoldenTest, ConvertsToTheReviewedText) {
  EXPECT_EQ(converted({pdb(GetParam())}), golden(GetParam()));
}

TEST_P(GoldenTest, ConvertsToTheReviewedTextInTheStandardFormat) {
  EXPECT_EQ(converted({"--standard", pdb(GetParam())}), golden(GetParam() + std::string(".std")));
}

TEST_P(GoldenTest, LeavesOutInlineSites) {
  EXPECT_EQ(converted({"-i", pdb(GetParam())}), lines_without(golden(GetParam()), {"I "}));
}

TEST_P(GoldenTest, ConvertsBackFromSymbAsReviewed) {
  const TemporaryDirectory folder;
  const std::string symb = folder.file("a.symb", converted({"-b", pdb(GetParam())}));
  const std::string text = converted({symb});
  EXPECT_EQ(text, read_file(kData + std::string(GetParam()) + ".back.sym"));
  // Text and SYMB are equivalent from here on.
  EXPECT_EQ(converted({"-b", folder.file("b.sym", text)}), read_file(symb));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, GoldenTest,
                         testing::Values("engine64", "engine32", "calls64", "calls32"),
                         [](const auto& fixture) { return std::string(fixture.param); });

}  // namespace
}  // namespace test_support
