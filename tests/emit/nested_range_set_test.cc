// Which ranges are accepted, and in which order.

#include "symforge/src/emit/nested_range_set.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <vector>

#include "processor/contained_range_map.h"

namespace symforge_internal {
namespace {

using google_breakpad::ContainedRange;
using google_breakpad::ContainedRangeMap;

// The traversal of the map that NestedRangeSet replaces, as (base, high, position).
using Visit = std::function<void(uint32_t base, uint32_t high, uint32_t position)>;
void walk(const ContainedRange<uint32_t, uint32_t>& range, const Visit& visit) {
  if (range.Map() == nullptr) return;
  for (const auto& [high, child] : *range.Map()) {
    visit(child->Base(), high, child->Entry());
    walk(*child, visit);
  }
}

TEST(NestedRangeSetTest, KeepsWhatAContainedRangeMapKeeps) {
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

}  // namespace
}  // namespace symforge_internal
