// Conversion of inline site annotations to I lines.

#include "symforge/src/emit/inline_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "builders/codeview_builder.h"
#include "symforge/src/StreamReader.h"
#include "symforge/src/pdb/binary_annotations.h"
#include "tests/support/annotation_cases.h"

namespace symforge_internal {
namespace {

using builders::Annotations;
using namespace test_support;

// The nested sites of a function at 0x1000, defined in line 10 of file 3.
std::string linesOf(const std::vector<Annotations>& sites) {
  InlineTree tree;
  AnnotationDecoder decoder;
  InlineSite site;
  site.file_id = 3;
  for (const Annotations& annotations : sites) {
    tree.names() += "N";
    site.name = tree.addName();
    const std::string bytes = annotations.bytes() + std::string(kAnnotationSlack, '\x03');
    decoder.beginSite(reinterpret_cast<const uint8_t*>(bytes.data()), annotations.bytes().size(),
                      0x1000, 10);
    while (decoder.nextRange()) {
      site.offset = decoder.code();
      site.length = decoder.length();
      site.line_offset = decoder.line();
      tree.store(site);
    }
    ++site.tower;
  }
  TextBuffer out;
  tree.print(out);
  return std::string(out.view());
}

TEST(InlineTreeTest, PrintsASiteAtEachVisit) {
  for (const TestCase& c : test_cases("annotations.txt", "visits")) {
    std::vector<Annotations> sites;
    for (const std::string& site : split(c.input, '|')) sites.push_back(annotations_of(site));
    const std::string lines = linesOf(sites);
    EXPECT_EQ(lines.empty() ? "none" : lines, c.expected) << c.input;
  }
  EXPECT_EQ(linesOf({Annotations()}), "");
}

TEST(InlineTreeTest, RefusesBadOpcodes) {
  for (const char* bytes : {"\x0E", "\xE0", "\x03\xFF", "\x0C\x01\xE1", "\x80\x10"})
    EXPECT_THROW(linesOf({Annotations().raw(bytes)}), pdb_exception);
}

TEST(InlineTreeTest, SurvivesNestingWithoutEnd) {
  constexpr uint32_t kDepth = 200000;
  InlineTree tree;
  tree.names() += "N";
  InlineSite site;
  site.name = tree.addName();
  for (site.length = kDepth; site.length != 0; --site.length) tree.store(site);
  site.offset = 1;
  site.length = kDepth;
  tree.store(site);  // crosses the outermost: all are checked one by one
  TextBuffer out;
  tree.print(out);
  EXPECT_EQ(std::count(out.view().begin(), out.view().end(), '\n'), 2 * kDepth);
}

}  // namespace
}  // namespace symforge_internal
