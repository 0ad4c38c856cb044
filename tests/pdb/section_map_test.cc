// Mapping of section and offset to an RVA, also in an image rewritten after linking.

#include "symforge/src/pdb/section_map.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/pdb_text.h"

namespace symforge_internal {
namespace {

// The record with the given bytes.
template <typename Record>
Record recordOf(const std::string& bytes) {
  EXPECT_EQ(bytes.size(), sizeof(Record));
  return *reinterpret_cast<const Record*>(bytes.data());
}

IMAGE_SECTION_HEADER sectionAt(uint32_t rva) {
  return recordOf<IMAGE_SECTION_HEADER>(
      builders::section_header({.name = ".text", .address = rva}));
}

OmapEntry entry(uint32_t first, uint32_t second) {
  return recordOf<OmapEntry>(builders::omap_table({{first, second}}));
}

TEST(SectionMapTest, MapsThroughTheAddressMap) {
  const SectionHeaders final_image = {sectionAt(0x1000), sectionAt(0x2000)};
  const SectionHeaders linked = {sectionAt(0x4000)};
  const struct {
    const char* what;
    SectionMap map;
    uint32_t mapped[3];  // of offsets 0x10, 0x14 in section 1, and of 0x10 in no section
  } cases[] = {
      {"not rewritten", SectionMap(final_image), {0x1010, 0x1014, 0x10}},
      {"original sections alone", SectionMap(final_image, linked), {0x4010, 0x4014, 0x10}},
      {"below the first entry",
       SectionMap(final_image, linked, {entry(0x5000, 0x7000)}),
       {0x4010, 0x4014, 0x10}},
      {"from the first entry on",
       SectionMap(final_image, linked, {entry(0x4010, 0x7000)}),
       {0x7000, 0x7004, 0x10}},
      {"the last of equal entries",
       SectionMap(final_image, linked,
                  {entry(0x4000, 0x9000), entry(0x4000, 0x7000), entry(0x4012, 0x100)}),
       {0x7010, 0x102, 0x10}},
      {"down to 0", SectionMap(final_image, linked, {entry(0x4000, 0)}), {0x10, 0x14, 0x10}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.map.mapAddressOmap(0x10, 1), c.mapped[0]) << c.what;
    EXPECT_EQ(c.map.mapAddressOmap(0x14, 1), c.mapped[1]) << c.what;
    EXPECT_EQ(c.map.mapAddressOmap(0x10, 0), c.mapped[2]) << c.what;
    EXPECT_THROW(c.map.mapAddressOmap(0, 3), std::out_of_range) << c.what;
  }
}

// The records and messages of a PDB with a function f and lines at mapped addresses.
TEST(SectionMapTest, ReadsTheMapOnlyIfTheReverseMapExists) {
  using namespace test_support;
  const auto mapped = [](const std::vector<std::pair<uint32_t, uint32_t>>& map, bool toSource) {
    SmallPdb pdb;
    pdb.original_section({.name = ".text", .address = 0x4000});
    pdb.omap_from(map);
    ModuleBuilder& module = pdb.add_module("a.obj");
    const uint32_t file = module.file(pdb.names.add("a.cc"));
    module.proc({.name = "f", .offset = 0x10, .length = 8, .type = pdb.type});
    module.lines(1, 0x10, 8, file, {{0, 1}, {4, 2}});
    pdb.lay_out();
    pdb.dbi.debug.omap_to_source = toSource ? 0 : builders::kNoStream;
    pdb.msf.set_stream(3, pdb.dbi.bytes());
    return convert(pdb);
  };
  EXPECT_EQ(records(mapped({{0x4010, 0x7000}}, false)),
            "FUNC 1:4010 8 0 f()\n4010 4 1 1\n4014 4 2 1\n");
  EXPECT_EQ(records(mapped({{0x4010, 0x7000}}, true)),
            "FUNC 1:7000 8 0 f()\n7000 4 1 1\n7004 4 2 1\n");
  const std::string messages = mapped({{0x4010, 0x7000}, {0x4000, 0x8000}}, true).messages;
  EXPECT_EQ(messages.find("Encountered unordered omap section: "), 0u);
  EXPECT_EQ(messages.back(), '.');
}

}  // namespace
}  // namespace symforge_internal
