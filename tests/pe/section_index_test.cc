#include "symforge/src/pe/section_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <random>
#include <vector>

namespace symforge_internal {
namespace {

void set(le_uint32& field, uint32_t value) { field = std::bit_cast<le_uint32>(value); }

// Compares with a search of the sections one by one. They overlap, are empty, and reach the end of
// the address space.
TEST(SectionIndexTest, AgreesWithAScan) {
  std::mt19937 random(5);
  for (const uint32_t spread : {40u, 1000u, 0xFFFFFFFFu}) {
    const auto any = [&](uint32_t most) { return static_cast<uint32_t>(random() % most); };
    std::vector<IMAGE_SECTION_HEADER> sections(60);
    std::vector<uint32_t> addresses = {0, 0xFFFFFFFF};
    for (IMAGE_SECTION_HEADER& section : sections) {
      section = {};
      set(section.VirtualAddress, any(spread));
      set(section.SizeOfRawData, any(4) == 0 ? 0 : any(spread / 8));
      for (const uint32_t delta : {0u, 1u, 0xFFFFFFFFu}) {
        addresses.push_back(section.VirtualAddress + delta);
        addresses.push_back(section.VirtualAddress + section.SizeOfRawData + delta);
      }
    }
    const SectionIndex index(sections);
    for (const uint32_t rva : addresses) {
      const auto found = std::find_if(sections.begin(), sections.end(), [&](const auto& section) {
        return rva >= section.VirtualAddress &&
               rva - section.VirtualAddress < section.SizeOfRawData;
      });
      const size_t expected = found == sections.end()
                                  ? SectionIndex::kNone
                                  : static_cast<size_t>(found - sections.begin());
      ASSERT_EQ(index.find(rva), expected) << rva;
    }
  }
  EXPECT_EQ(SectionIndex().find(0), SectionIndex::kNone);
}

}  // namespace
}  // namespace symforge_internal
