#include "processor/contained_range_map.h"

#include <gmock/gmock.h>

#include <array>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "processor/linked_ptr.h"

namespace google_breakpad {
namespace {

using ContainedMap = ContainedRangeMap<uint64_t, int>;

TEST(ContainedRangeMap, EdgesOfTheAddressSpace) {
  constexpr uint64_t kLast = ~uint64_t{0};
  ContainedMap map;
  EXPECT_EQ(map.byte_count(), 0u);
  EXPECT_FALSE(map.StoreRange(5, 0, 1)) << "empty";
  EXPECT_FALSE(map.StoreRange(kLast, 2, 1)) << "wraps";
  EXPECT_TRUE(map.StoreRange(kLast, 1, 1));
  EXPECT_TRUE(map.StoreRange(1, kLast, 2));
  std::vector<int> stack;
  EXPECT_TRUE(map.RetrieveRangeStack(kLast, stack));
  EXPECT_EQ(stack, (std::vector<int>{2, 1}));
}

// Whether a range is stored depends only on the set of stored ranges, so a flat list is a model of
// the tree.
TEST(ContainedRangeMap, AgreesWithAFlatList) {
  std::mt19937 random(11);
  for (int round = 0; round < 300; ++round) {
    const uint64_t space = 8 + random() % 200;
    ContainedMap map;
    std::vector<std::pair<uint64_t, uint64_t>> list;
    for (int i = 0; i < 150; ++i) {
      const uint64_t base = random() % space, high = base + random() % (space / 2);
      const bool fits = std::none_of(list.begin(), list.end(), [&](const auto& other) {
        const auto [b, h] = other;
        const bool crosses =
            (b < base && base <= h && h < high) || (base < b && b <= high && high < h);
        return crosses || (b == base && h == high);
      });
      ASSERT_EQ(map.StoreRange(base, high - base + 1, static_cast<int>(list.size())), fits);
      if (fits) list.emplace_back(base, high);
    }
    for (uint64_t address = 0; address < space * 2; ++address) {
      int narrowest = -1, entry = -1;
      size_t depth = 0;
      for (size_t i = 0; i < list.size(); ++i) {
        const auto [b, h] = list[i];
        if (address < b || address > h) continue;
        ++depth;
        if (narrowest < 0 || h - b < list[narrowest].second - list[narrowest].first)
          narrowest = static_cast<int>(i);
      }
      std::vector<int> stack;
      map.RetrieveRange(address, &entry);
      map.RetrieveRangeStack(address, stack);
      ASSERT_EQ(entry, narrowest);
      ASSERT_EQ(stack.size(), depth);
    }
  }
}

// Base, last address and entry of every range in pre-order.
template <typename Range>
void walk(const Range& range, std::vector<std::array<uint64_t, 3>>& found) {
  if (range.Map() == nullptr) return;
  for (const auto& [high, inside] : *range.Map()) {
    found.push_back({inside->Base(), high, static_cast<uint64_t>(inside->Entry())});
    walk(*inside, found);
  }
}

// Storing many ranges at once yields the same tree as storing them one by one, also at both ends of
// the address space.
TEST(ContainedRangeMap, StoresManyAsOneByOne) {
  std::mt19937_64 random(23);
  for (int round = 0; round < 3000; ++round) {
    const uint64_t space = 2 + random() % (round % 3 == 0 ? 12 : 200);
    const uint64_t origin = round % 2 == 0 ? 0 : ~uint64_t{0} - 2 * space;
    std::vector<ContainedMap::Extent> extents(random() % 60);
    ContainedMap one_by_one, at_once;
    for (size_t i = 0; i < extents.size(); ++i) {
      const uint64_t base = origin + random() % space;
      const uint64_t wanted = base + random() % (random() % 4 == 0 ? 2 * space : 6);
      extents[i] = {base, wanted < base ? ~uint64_t{0} : wanted};
      one_by_one.StoreRange(base, extents[i].high - base + 1, static_cast<int>(i));
    }
    std::vector<int> entries(extents.size());
    std::iota(entries.begin(), entries.end(), 0);
    at_once.StoreRanges(extents, entries);
    std::vector<std::array<uint64_t, 3>> expected, found;
    walk(one_by_one, expected);
    walk(at_once, found);
    ASSERT_EQ(found, expected) << "round " << round;
    // The map accepts further ranges.
    ASSERT_EQ(at_once.StoreRange(origin + 1, 2, -1), one_by_one.StoreRange(origin + 1, 2, -1));
  }
}

// Neither time nor stack use depends on the depth of nesting, in any order of insertion.
TEST(ContainedRangeMap, NestsDeep) {
  constexpr uint32_t kDepth = 20000;
  for (const char* order : {"inwards", "outwards", "shuffled"}) {
    ContainedRangeMap<uint32_t, linked_ptr<int>> map;
    for (uint32_t i = 0; i < kDepth; ++i) {
      const uint32_t level = order[0] == 'i'   ? i
                             : order[0] == 'o' ? kDepth - 1 - i
                                               : i * 7919 % kDepth;
      ASSERT_TRUE(map.StoreRange(level, 2 * kDepth - 2 * level, linked_ptr<int>(new int(level))));
    }
    std::vector<linked_ptr<int>> stack;
    EXPECT_TRUE(map.RetrieveRangeStack(kDepth - 1, stack));
    EXPECT_EQ(stack.size(), kDepth);
    EXPECT_EQ(*stack.back(), static_cast<int>(kDepth - 1));
  }
}

}  // namespace
}  // namespace google_breakpad
