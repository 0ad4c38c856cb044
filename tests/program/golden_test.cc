// Complete real fixtures: the output for each is compared byte for byte with the reviewed text in
// the repository (scripts/make_goldens regenerates it).

#include <charconv>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/program.h"
#include "tests/support/symbols.h"

namespace test_support {
namespace {

std::string golden(const std::string& name) { return read_file(kFixtures + name + ".sym"); }
std::string pdb(const std::string& name) { return kFixtures + name + ".pdb"; }

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
  EXPECT_EQ(text, read_file(kFixtures + std::string(GetParam()) + ".back.sym"));
  // Text and SYMB are equivalent from here on.
  EXPECT_EQ(converted({"-b", folder.file("b.sym", text)}), read_file(symb));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, GoldenTest,
                         testing::Values("engine64", "engine32", "calls64", "calls32", "mingw64"),
                         [](const auto& fixture) { return std::string(fixture.param); });

// Images of 64-bit ARM have unwind rules in the standard format alone.
class Arm64GoldenTest : public testing::TestWithParam<const char*> {};

TEST_P(Arm64GoldenTest, HasTheReviewedRulesInTextAndSymb) {
  const std::string name = std::string("arm64/") + GetParam();
  const std::string text = golden(name + ".std");
  EXPECT_EQ(converted({"--standard", pdb(name)}), text);
  const std::string symb = converted({"--standard", "-b", pdb(name)});
  const Symbols of_text(text), of_symb(symb);
  size_t rules = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    uint64_t address = 0;
    if (!line.starts_with("STACK CFI ")) continue;
    const size_t digits = line.find_first_of("0123456789");
    std::from_chars(line.data() + digits, line.data() + line.size(), address, 16);
    const std::string found = of_text.cfi(address);
    EXPECT_TRUE(found.starts_with(".cfa: ")) << line;
    EXPECT_EQ(found.find('$'), found.npos) << line;
    EXPECT_EQ(of_symb.cfi(address), found) << line;
    ++rules;
  }
  EXPECT_GT(rules, 50u);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Arm64GoldenTest,
                         testing::Values("frames_o0", "frames_o2", "frames_signed"),
                         [](const auto& fixture) { return std::string(fixture.param); });

TEST(Arm64GoldenTest, FindsTheRulesOfAPrologue) {
  const Symbols symbols(golden("arm64/frames_o0.std"));
  EXPECT_EQ(symbols.cfi(0x102C), ".cfa: sp 32 + .ra: x30");
  EXPECT_EQ(symbols.cfi(0x1030), ".cfa: sp 32 + .ra: .cfa 16 - ^");
  EXPECT_EQ(symbols.cfi(0x1044), ".cfa: sp 32 + .ra: x30");
}

}  // namespace
}  // namespace test_support
