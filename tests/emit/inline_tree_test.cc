// Conversion of inline site annotations to I lines.

#include "symforge/src/emit/inline_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "builders/codeview_builder.h"
#include "symforge/src/StreamReader.h"
#include "symforge/src/pdb/binary_annotations.h"

namespace symforge_internal {
namespace {

using builders::Annotations;

// The nested sites of a function at 0x1000, defined in line 10 of file 3.
std::string linesOf(const std::vector<Annotations>& sites) {
  InlineTree tree;
  AnnotationDecoder decoder;
  InlineSite site;
  site.file_id = 3;
  for (const Annotations& annotations : sites) {
    tree.names() += "N";
    site.name = tree.addName();
    const std::string bytes = annotations.bytes() + std::string(kAnnotationSlack, '\0');
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
  const Annotations one = Annotations().op(11, 0x24);
  const struct {
    std::vector<Annotations> sites;
    std::string lines;
  } cases[] = {
      {{}, ""},
      {{Annotations()}, ""},
      {{one}, "I 1004 1 11 3 0 N\nI 1004 1 11 3 0 N\n"},
      // The shorter range is nested in the longer one, and the innermost is printed at every end.
      {{Annotations().op(11, 0x24).op(4, 8)},
       "I 1004 8 11 3 0 N\nI 1004 1 11 3 0 N\nI 1004 1 11 3 0 N\nI 1004 1 11 3 0 N\n"},
      // A range of unknown length extends to the last byte before the next range.
      {{Annotations().op(3, 4).op(3, 12)},
       "I 1004 1 10 3 0 N\nI 1004 b 10 3 0 N\nI 1010 1 10 3 0 N\nI 1010 1 10 3 0 N\n"},
      // The length carries over to the next site; code and line do not.
      {{Annotations().op(4, 2), Annotations().op(6, 3).op(3, 8)},
       "I 1000 2 10 3 0 N\nI 1000 2 10 3 0 N\nI 1008 2 9 3 1 N\nI 1008 2 9 3 1 N\n"},
      {{Annotations().op(12, 0x20, 0x100), Annotations().op(11, 0x32)},
       "I 1002 20 9 3 1 N\nI 1002 20 9 3 1 N\nI 1100 20 10 3 0 N\nI 1100 20 10 3 0 N\n"},
      // Absolute, and below the function.
      {{Annotations().op(1, 0x20)}, "I 20 1 10 3 0 N\nI 20 1 10 3 0 N\n"},
      // Operands of other opcodes are read and ignored.
      {{Annotations().op(2, 300).op(5, 9).op(7, 9).op(8, 9).op(9, 9).op(10, 9).op(13, 9).op(3, 1)},
       "I 1001 1 10 3 0 N\nI 1001 1 10 3 0 N\n"},
      // Opcode 0 ends the site.
      {{Annotations().op(3, 1).raw({"\0\x03\x01", 3})}, "I 1001 1 10 3 0 N\nI 1001 1 10 3 0 N\n"},
      // Length 0 is rejected, and so is a partial overlap.
      {{Annotations().op(4, 0).op(3, 4)}, ""},
      {{Annotations().op(12, 8, 0).op(3, 4)}, "I 1000 8 10 3 0 N\nI 1000 8 10 3 0 N\n"},
      // A truncated number continues in the bytes that follow.
      {{Annotations().raw("\x03\x81")}, "I 1100 1 10 3 0 N\nI 1100 1 10 3 0 N\n"},
  };
  for (size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(linesOf(cases[i].sites), cases[i].lines) << "case " << i;
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
