// The real fixtures, whole: what the program makes of each is compared byte for byte with the text
// that was reviewed when it was committed (scripts/make_goldens remakes them).

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "builders/bytes.h"
#include "tests/support/process.h"

namespace test_support {

using namespace builders;
namespace {

const std::string kData = SYMFORGE_FIXTURES "/";

std::string golden(const std::string& name) { return read_file(kData + name + ".sym"); }
std::string pdb(const std::string& name) { return kData + name + ".pdb"; }

// The parameter is the name of a fixture; its image stands beside its PDB and is found there.
class GoldenTest : public testing::TestWithParam<const char*> {};

// The lines of a text for which `keep` holds.
std::string lines_where(const std::string& text,
                        const std::function<bool(std::string_view)>& keep) {
  std::string kept;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (keep(line)) kept += line + '\n';
  }
  return kept;
}

// The standard output of a run that has to succeed silently.
std::string converted(const std::vector<std::string>& args) {
  const Result result = run(args);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  return result.out;
}

TEST_P(GoldenTest, ConvertsToTheReviewedText) {
  EXPECT_EQ(converted({pdb(GetParam())}), golden(GetParam()));
}

TEST_P(GoldenTest, LeavesOutInlineSites) {
  EXPECT_EQ(converted({"-i", pdb(GetParam())}),
            lines_where(golden(GetParam()),
                        [](std::string_view line) { return !line.starts_with("I "); }));
}

TEST_P(GoldenTest, ComesBackFromSymbAsReviewed) {
  const TemporaryDirectory folder;
  const std::string symb = folder.file("a.symb", converted({"-b", pdb(GetParam())}));
  const std::string text = converted({symb});
  EXPECT_EQ(text, read_file(kData + std::string(GetParam()) + ".back.sym"));
  // Text and SYMB hold the same from here on.
  EXPECT_EQ(converted({"-b", folder.file("b.sym", text)}), read_file(symb));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, GoldenTest,
                         testing::Values("engine64", "engine32", "calls64", "calls32"),
                         [](const auto& fixture) { return std::string(fixture.param); });

// A PDB converted without its image, which then comes by itself, gives the same lines.
TEST(GoldenTreeTest, TakesAnImageAfterItsPdb) {
  const TemporaryDirectory folder;
  const std::string tree = folder.folder("tree");
  const std::string alone = folder.file("engine64.pdb", read_file(pdb("engine64")));
  EXPECT_EQ(converted({alone, tree}), "");
  EXPECT_EQ(converted({"-e", kData + "engine64.exe", "-s", tree}), "");

  const auto is_from_image = [](std::string_view line) {
    return line.starts_with("INFO CODE_ID") || line.starts_with("STACK CFI");
  };
  const std::string text = golden("engine64");
  const Tree files = list_tree(tree);
  const auto file = std::find_if(files.begin(), files.end(), [](const auto& entry) {
    return entry.first.ends_with("/engine64.sym");
  });
  ASSERT_NE(file, files.end());
  EXPECT_EQ(read_file(tree + "/" + file->first),
            lines_where(text, std::not_fn(is_from_image)) + lines_where(text, is_from_image));
}

}  // namespace
}  // namespace test_support
