#include "processor/range_map.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "processor/address_map.h"
#include "processor/linked_ptr.h"
#include "tests/support/data.h"

namespace google_breakpad {
namespace {

using DisjointMap = RangeMap<uint64_t, int>;
constexpr auto kExclusive = MergeRangeStrategy::kExclusiveRanges;
constexpr auto kLower = MergeRangeStrategy::kTruncateLower;
constexpr auto kUpper = MergeRangeStrategy::kTruncateUpper;

// "base-high:entry" of each range, with "+delta" if it is not 0, in hexadecimal.
std::string picture(const DisjointMap& map) {
  std::ostringstream out;
  out << std::hex;
  for (const auto& [high, range] : map.GetMap()) {
    out << range.base() << "-" << high << ":" << range.entry();
    if (range.delta() != 0) out << "+" << range.delta();
    out << " ";
  }
  return out.str();
}

TEST(RangeMap, OverlapsByStrategy) {
  for (const auto& c : test_support::test_cases("overlaps.txt")) {
    char strategy[16] = {};
    uint64_t base = 0, high = 0;
    ASSERT_EQ(std::sscanf(c.input.c_str(), "%15s %lx-%lx", strategy, &base, &high), 3) << c.input;
    DisjointMap map;
    map.SetMergeStrategy(*strategy == 'e' ? kExclusive : *strategy == 'l' ? kLower : kUpper);
    ASSERT_TRUE(map.StoreRange(0x10, 0x10, 1));
    const bool stored = map.StoreRange(base, high - base + 1, 2);
    EXPECT_EQ((stored ? "" : "refused ") + picture(map), c.expected + " ") << c.input;
  }
}

// Truncates a range of the second block to below where the first block ended.
TEST(RangeMap, TruncatesARangeAcrossBlocks) {
  DisjointMap map;
  map.SetMergeStrategy(kLower);
  for (int i = 0; i < 65; ++i) map.StoreRange(static_cast<uint64_t>(i) * 10, 5, i);
  ASSERT_TRUE(map.StoreRange(633, 5, 100));
  ASSERT_TRUE(map.StoreRange(634, 5, 101));
  int entry = 0;
  ASSERT_TRUE(map.RetrieveRange(634, &entry, nullptr, nullptr, nullptr));
  EXPECT_EQ(entry, 101);
}

// Compares BlockMap with std::map. The orders append, prepend, split and empty blocks, with enough
// entries for several groups.
TEST(BlockMap, AgreesWithAnOrderedMap) {
  size_t ascending_bytes = 0;
  for (const char* order : {"ascending", "descending", "random"}) {
    SCOPED_TRACE(order);
    constexpr uint32_t kEntries = 60000;
    std::mt19937 random(7);
    BlockMap<uint32_t, std::string> blocks;
    std::map<uint32_t, std::string> map;
    for (uint32_t i = 0; i < kEntries; ++i) {
      const uint32_t key = order[0] == 'a'   ? i * 2
                           : order[0] == 'd' ? (kEntries - i) * 2
                                             : random() % 100000;
      const std::string value = std::to_string(i);
      ASSERT_EQ(blocks.insert(key, value), map.emplace(key, value).second);
    }
    // Only a random order leaves gaps.
    if (order[0] == 'a') ascending_bytes = blocks.byte_count();
    if (order[0] == 'd') {
      EXPECT_EQ(blocks.byte_count(), ascending_bytes);
    }
    for (int i = 0; i < 90000; ++i) {  // between, below and above the keys
      const uint32_t key = random() % 130000;
      const auto expected = map.lower_bound(key);
      auto it = blocks.lower_bound(key);
      ASSERT_EQ(it == blocks.end(), expected == map.end());
      if (it != blocks.end()) {
        ASSERT_EQ(it.value(), expected->second);
      }
      if (expected != map.begin()) {
        ASSERT_EQ((--it).key(), std::prev(expected)->first);
      }
      if (i % 2 == 0 && expected != map.end()) {
        const auto behind = blocks.erase(blocks.lower_bound(key));
        const auto expected_behind = map.erase(expected);
        ASSERT_EQ(behind == blocks.end(), expected_behind == map.end());
        if (behind != blocks.end()) {
          ASSERT_EQ(behind.key(), expected_behind->first);
        }
      }
      if (i % 5 == 0) {
        ASSERT_EQ(blocks.insert(key, "new"), map.emplace(key, "new").second);
      }
    }
    ASSERT_EQ(blocks.size(), map.size());
    auto it = blocks.begin();
    for (const auto& [key, value] : map) {
      ASSERT_EQ(std::pair(it.key(), it.value()), std::pair(key, value));
      ++it;
    }
    EXPECT_EQ(it, blocks.end());
    // From the middle up, with the ends of groups, then the rest.
    auto expected = map.lower_bound(kEntries);
    for (it = blocks.lower_bound(kEntries); it != blocks.end(); it = blocks.erase(it)) {
      ASSERT_EQ(it.key(), expected->first);
      expected = map.erase(expected);
    }
    EXPECT_EQ(expected, map.end());
    while (!blocks.empty()) blocks.erase(blocks.begin());
    EXPECT_EQ(blocks.begin(), blocks.end());
  }
}

}  // namespace
}  // namespace google_breakpad
