// Inline sites: annotations, the tree of code ranges, I lines.

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "processor/contained_range_map.h"
#include "symforge/src/emit/inline_tree.h"
#include "symforge/src/pdb/binary_annotations.h"
#include "tests/pdb_text.h"

namespace symforge_internal {

using google_breakpad::ContainedRange;
using google_breakpad::ContainedRangeMap;
namespace {

using builders::Annotations;

// The sites of one function at 0x1000, one in the other, defined in line 10 of file 3.
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

TEST(InlineSitesTest, PrintsEachSiteAsOftenAsTheWalkMeetsIt) {
  const Annotations one = Annotations().op(11, 0x24);
  const struct {
    std::vector<Annotations> sites;
    std::string lines;
  } cases[] = {
      {{}, ""},
      {{Annotations()}, ""},
      {{one}, "I 1004 1 11 3 0 N\nI 1004 1 11 3 0 N\n"},
      // The shorter range nests in the longer, and the innermost comes out at every end.
      {{Annotations().op(11, 0x24).op(4, 8)},
       "I 1004 8 11 3 0 N\nI 1004 1 11 3 0 N\nI 1004 1 11 3 0 N\nI 1004 1 11 3 0 N\n"},
      // A length that is not known reaches to the next range, less one.
      {{Annotations().op(3, 4).op(3, 12)},
       "I 1004 1 10 3 0 N\nI 1004 b 10 3 0 N\nI 1010 1 10 3 0 N\nI 1010 1 10 3 0 N\n"},
      // The length outlasts the site, the code and the line do not.
      {{Annotations().op(4, 2), Annotations().op(6, 3).op(3, 8)},
       "I 1000 2 10 3 0 N\nI 1000 2 10 3 0 N\nI 1008 2 9 3 1 N\nI 1008 2 9 3 1 N\n"},
      {{Annotations().op(12, 0x20, 0x100), Annotations().op(11, 0x32)},
       "I 1002 20 9 3 1 N\nI 1002 20 9 3 1 N\nI 1100 20 10 3 0 N\nI 1100 20 10 3 0 N\n"},
      // Absolute, and below the function.
      {{Annotations().op(1, 0x20)}, "I 20 1 10 3 0 N\nI 20 1 10 3 0 N\n"},
      // Operands of the other opcodes are read and have no effect.
      {{Annotations().op(2, 300).op(5, 9).op(7, 9).op(8, 9).op(9, 9).op(10, 9).op(13, 9).op(3, 1)},
       "I 1001 1 10 3 0 N\nI 1001 1 10 3 0 N\n"},
      // Zero ends the site.
      {{Annotations().op(3, 1).raw({"\0\x03\x01", 3})}, "I 1001 1 10 3 0 N\nI 1001 1 10 3 0 N\n"},
      // Length 0 is refused, and so is a partial overlap.
      {{Annotations().op(4, 0).op(3, 4)}, ""},
      {{Annotations().op(12, 8, 0).op(3, 4)}, "I 1000 8 10 3 0 N\nI 1000 8 10 3 0 N\n"},
      // A number that is cut short goes on in what follows.
      {{Annotations().raw("\x03\x81")}, "I 1100 1 10 3 0 N\nI 1100 1 10 3 0 N\n"},
  };
  for (size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(linesOf(cases[i].sites), cases[i].lines) << "case " << i;
}

TEST(InlineSitesTest, RefusesBadOpcodes) {
  for (const char* bytes : {"\x0E", "\xE0", "\x03\xFF", "\x0C\x01\xE1", "\x80\x10"})
    EXPECT_THROW(linesOf({Annotations().raw(bytes)}), pdb_exception);
}

// Ids 0x1000 and 0x1001 have names; the rendering of 0x1002 warns; that of a method and of what is
// no record fails, and then no site of the function is told. Names are rendered twice: to find that
// out, up to the first that fails, and to print.
TEST(InlineSitesTest, SaysNothingWhenOneInlineeHasNoName) {
  const std::string warning = "Unknown ptr type encountered\n";
  const std::string g = "I 1014 1 8 1 0 ns::g()\nI 1014 1 8 1 0 ns::g()\n";
  const std::string h = "I 1014 1 1 0 0 h(int)\nI 1014 1 1 0 0 h(int)\n";
  const struct {
    std::vector<uint32_t> inlinees;
    std::string lines, messages;
  } cases[] = {
      {{0x1001}, g, ""},
      {{0x1001, 0x1003, 0x1000}, "", ""},
      {{0x1001, 0x1009}, "", ""},
      {{0x1002}, h, warning + warning},
      {{0x1002, 0x1003, 0x1002}, "", warning},
  };
  for (const auto& c : cases) {
    test_support::SmallPdb pdb;
    const uint32_t unknown = pdb.types.pointer(0x74, 7 << 5);
    pdb.ids.function_id("f", pdb.type);
    pdb.ids.function_id("ns::g", pdb.type);
    pdb.ids.function_id("h", pdb.types.procedure(0x74, pdb.types.arguments({unknown}), 1));
    pdb.ids.add(0x1602, builders::Bytes().u32(0).u32(pdb.type).zstr("m").str());
    builders::ModuleBuilder& module = pdb.add_module("a.obj");
    const uint32_t file = module.file(pdb.names.add("a.cc"));
    module.proc({.name = "outer", .offset = 0x10, .length = 0x20});
    for (const uint32_t id : c.inlinees)
      module.inline_site(id, Annotations().op(11, 0x24)).inline_site_end();
    module.end().inlinees({{.inlinee = 0x1001, .file = file, .line = 7}});
    const test_support::Conversion result = test_support::convert(pdb);
    EXPECT_EQ(result.lines("I "), c.lines);
    EXPECT_EQ(result.messages, c.messages);
  }
}

// ---- The nesting

// The walk over the map that NestedRangeSet stands for, as (base, high, position).
using Visit = std::function<void(uint32_t base, uint32_t high, uint32_t position)>;
void walk(const ContainedRange<uint32_t, uint32_t>& range, const Visit& visit) {
  if (range.Map() == nullptr) return;
  for (const auto& [high, child] : *range.Map()) {
    visit(child->Base(), high, child->Entry());
    walk(*child, visit);
  }
}

TEST(RangeNestingTest, KeepsWhatAContainedRangeMapKeeps) {
  std::mt19937 random(20240229);
  NestedRangeSet nesting;
  for (int round = 0; round < 4000; ++round) {
    const uint32_t span = 2 + random() % (round % 3 == 0 ? 12 : 200);
    const uint32_t origin = round % 2 == 0 ? 0 : 0xFFFFFFFF - 2 * span;
    std::vector<AddressRange> ranges(random() % 40);
    ContainedRangeMap<uint32_t, uint32_t> map;
    for (uint32_t i = 0; i < ranges.size(); ++i) {
      const uint32_t base = origin + random() % span;
      const uint32_t wanted = base + random() % (random() % 4 == 0 ? span : 6);
      const uint32_t high = wanted < base ? 0xFFFFFFFF : wanted;
      ranges[i] = {base, high};
      map.StoreRange(base, high - base + 1, i);
    }
    std::vector<uint32_t> expected;
    walk(map, [&](uint32_t, uint32_t, uint32_t position) { expected.push_back(position); });
    ASSERT_EQ(nesting.nest(ranges), expected) << "round " << round;
  }
}

TEST(InlineSitesTest, SurvivesNestingWithoutEnd) {
  constexpr uint32_t kDepth = 200000;
  InlineTree tree;
  tree.names() += "N";
  InlineSite site;
  site.name = tree.addName();
  for (site.length = kDepth; site.length != 0; --site.length) tree.store(site);
  site.offset = 1;
  site.length = kDepth;
  tree.store(site);  // cuts the outermost: all have to be judged one by one
  TextBuffer out;
  tree.print(out);
  EXPECT_EQ(std::count(out.view().begin(), out.view().end(), '\n'), 2 * kDepth);
}

}  // namespace
}  // namespace symforge_internal
