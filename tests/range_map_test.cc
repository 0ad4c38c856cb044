#include "processor/range_map.h"

#include <gmock/gmock.h>

#include <map>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "processor/address_map.h"
#include "processor/linked_ptr.h"

namespace google_breakpad {
namespace {

using Map = RangeMap<uint64_t, int>;
constexpr uint64_t kTop = ~uint64_t{0};
constexpr auto kExclusive = MergeRangeStrategy::kExclusiveRanges;
constexpr auto kLower = MergeRangeStrategy::kTruncateLower;
constexpr auto kUpper = MergeRangeStrategy::kTruncateUpper;

// "base-high:entry" of each range, with "+delta" where there is one, in hexadecimal.
std::string picture(const Map& map) {
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
  const struct {
    MergeRangeStrategy strategy;
    uint64_t base, high;  // stored as entry 2 over [0x10, 0x1f], which is entry 1
    bool stored;
    const char* picture;
  } kCases[] = {
      {kExclusive, 0x00, 0x10, false, "10-1f:1 "},
      {kExclusive, 0x1f, 0x30, false, "10-1f:1 "},
      {kExclusive, 0x12, 0x14, false, "10-1f:1 "},
      {kExclusive, 0x00, 0x30, false, "10-1f:1 "},
      {kExclusive, 0x10, 0x1f, false, "10-1f:1 "},
      {kExclusive, 0x00, 0x0f, true, "0-f:2 10-1f:1 "},
      {kExclusive, 0x20, 0x2f, true, "10-1f:1 20-2f:2 "},
      {kLower, 0x18, 0x27, true, "10-17:1 18-27:2 "},
      {kLower, 0x08, 0x17, true, "8-f:2 10-1f:1 "},
      {kLower, 0x12, 0x14, true, "10-11:1 12-14:2 "},
      {kLower, 0x10, 0x30, false, "10-1f:1 "},
      {kUpper, 0x18, 0x27, true, "10-1f:1 20-27:2+8 "},
      {kUpper, 0x08, 0x17, true, "8-17:2 18-1f:1+8 "},
      {kUpper, 0x12, 0x1f, false, "10-1f:1 "},
  };
  for (const auto& c : kCases) {
    Map map;
    map.SetMergeStrategy(c.strategy);
    ASSERT_TRUE(map.StoreRange(0x10, 0x10, 1));
    EXPECT_EQ(map.StoreRange(c.base, c.high - c.base + 1, 2), c.stored) << c.picture;
    EXPECT_EQ(picture(map), c.picture);
  }
}

TEST(RangeMap, TruncateUpperCrossesSeveralRanges) {
  Map map;
  map.SetMergeStrategy(kUpper);
  map.StoreRange(0x10, 0x10, 1);
  map.StoreRange(0x30, 0x10, 2);
  EXPECT_TRUE(map.StoreRange(0x18, 0x48, 3));
  EXPECT_EQ(picture(map), "10-1f:1 30-3f:2 40-5f:3+28 ");
}

TEST(RangeMap, EdgesOfTheAddressSpace) {
  Map map;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(map.StoreRange(5, 0, 1));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(map.StoreRange(kTop, 2, 1));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("INFO: StoreRangeInternal failed, 0xffffffffffffffff+0x2, 0x0, "
                                 "delta: 0x0\n"));
  EXPECT_TRUE(map.StoreRange(kTop, 1, 7));
  int entry = 0;
  EXPECT_TRUE(map.RetrieveRange(kTop, &entry, nullptr, nullptr, nullptr));
  EXPECT_EQ(entry, 7);
}

TEST(RangeMap, NearestIsTheHighestRangeBelow) {
  Map map;
  map.StoreRange(0x10, 0x10, 1);
  map.StoreRange(0x30, 0x10, 2);
  const struct {
    uint64_t address;
    bool in, near;
    int entry;
  } kCases[] = {{0xf, false, false, 0}, {0x10, true, true, 1}, {0x1f, true, true, 1},
                {0x20, false, true, 1}, {0x3f, true, true, 2}, {0x40, false, true, 2},
                {kTop, false, true, 2}, {0x2f, false, true, 1}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.address);
    int entry = 0;
    uint64_t base = 0, delta = 9, size = 0;
    EXPECT_EQ(map.RetrieveRange(c.address, &entry, nullptr, nullptr, nullptr), c.in);
    EXPECT_EQ(map.RetrieveNearestRange(c.address, &entry, &base, &delta, &size), c.near);
    EXPECT_EQ(entry, c.entry);
    if (c.near) {
      EXPECT_EQ(std::tuple(base, delta, size), std::tuple(c.entry * 0x20 - 0x10, 0, 0x10));
    }
  }
  int entry = 0;
  uint64_t base = 0;
  EXPECT_TRUE(map.RetrieveRangeAtIndex(1, &entry, &base, nullptr, nullptr));
  EXPECT_EQ(base, 0x30U);
}

TEST(AddressMap, NearestBelowAndFirstWins) {
  AddressMap<uint64_t, int> map;
  int entry = 0;
  uint64_t address = 0;
  EXPECT_FALSE(map.Retrieve(5, &entry, nullptr));
  EXPECT_TRUE(map.Store(0x10, 1));
  EXPECT_TRUE(map.Store(0x20, 2));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(map.Store(0x20, 3));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::EndsWith("INFO: Store failed, address 0x20 is already present\n"));
  EXPECT_FALSE(map.Retrieve(0xf, &entry, &address));
  EXPECT_TRUE(map.Retrieve(0x1f, &entry, &address));
  EXPECT_EQ(std::pair(entry, address), std::pair(1, uint64_t{0x10}));
  EXPECT_TRUE(map.Retrieve(kTop, &entry, &address));
  EXPECT_EQ(std::pair(entry, address), std::pair(2, uint64_t{0x20}));
}

TEST(ContainersDeathTest, NullEntryEndsTheProcess) {
  EXPECT_DEATH(Map().RetrieveRange(1, nullptr, nullptr, nullptr, nullptr),
               "ERROR: RangeMap::RetrieveRange requires .entry.(.|\n)*`entry'");
  EXPECT_DEATH((AddressMap<uint64_t, int>().Retrieve(1, nullptr, nullptr)),
               "ERROR: AddressMap::Retrieve requires .entry.(.|\n)*`entry'");
}

// The blocks under all containers against std::map, in orders that append, prepend, split and empty
// blocks, with enough entries for several groups.
TEST(BlockMap, AgreesWithAnOrderedMap) {
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
    for (int i = 0; i < 90000; ++i) {  // also between, below and above the keys
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
    while (!blocks.empty()) blocks.erase(blocks.begin());
    EXPECT_EQ(blocks.begin(), blocks.end());
  }
}

TEST(LinkedPtr, TheLastOwnerDeletes) {
  struct Counted {
    explicit Counted(int* count) : alive(count) { ++*alive; }
    ~Counted() { --*alive; }
    int* alive;
  };
  int alive = 0;
  {
    std::vector<linked_ptr<Counted>> owners;
    for (int i = 0; i < 3; ++i) owners.emplace_back(new Counted(&alive));
    owners.insert(owners.begin(), owners[2]);  // moves and copies within one ring
    owners[1] = owners[3];
    EXPECT_EQ(alive, 2);
    linked_ptr<Counted>& same = owners[2];
    owners[2] = same;
    owners.erase(owners.begin() + 2);
    EXPECT_EQ(alive, 1);
    linked_ptr<Counted> outlives = owners[0];
    owners.clear();
    EXPECT_EQ(alive, 1);
    Counted* released = outlives.release();
    EXPECT_TRUE(outlives == nullptr);
    EXPECT_EQ(alive, 1);
    outlives.reset(released);
  }
  EXPECT_EQ(alive, 0);
}

}  // namespace
}  // namespace google_breakpad
