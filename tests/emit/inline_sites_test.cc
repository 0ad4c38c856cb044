// I lines of the functions of a PDB.

#include "symforge/src/emit/inline_sites.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

// Ids 0x1000 and 0x1001 have names. Rendering 0x1002 warns. Rendering a method or an invalid id
// fails, and then no site of the function is printed. Names are rendered twice: first up to the
// first failure, to detect it, and then to print them.
TEST(InlineSitesTest, PrintsNothingIfAnInlineeHasNoName) {
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
    SmallPdb pdb;
    const uint32_t unknown = pdb.types.pointer(0x74, 7 << 5);
    pdb.ids.function_id("f", pdb.type);
    pdb.ids.function_id("ns::g", pdb.type);
    pdb.ids.function_id("h", pdb.types.procedure(0x74, pdb.types.arguments({unknown}), 1));
    pdb.ids.add(0x1602, builders::Bytes().u32(0).u32(pdb.type).zstr("m").str());
    builders::ModuleBuilder& module = pdb.add_module("a.obj");
    const uint32_t file = module.file(pdb.names.add("a.cc"));
    module.proc({.name = "outer", .offset = 0x10, .length = 0x20});
    for (const uint32_t id : c.inlinees)
      module.inline_site(id, builders::Annotations().op(11, 0x24)).inline_site_end();
    module.end().inlinees({{.inlinee = 0x1001, .file = file, .line = 7}});
    const Conversion result = convert(pdb);
    EXPECT_EQ(result.lines("I "), c.lines);
    EXPECT_EQ(result.messages, c.messages);
  }
}

}  // namespace
}  // namespace test_support
