// The order of functions, and which of several at one address are kept.

#include "symforge/src/emit/function_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <unordered_map>
#include <utility>
#include <vector>

namespace symforge_internal {
namespace {

// A record, identified by its file index.
FunctionRecord recordAt(uint32_t segment, uint32_t rva, uint32_t type, uint32_t origin) {
  FunctionRecord record;
  record.segment = segment;
  record.rva = rva;
  record.typeIndex = type;
  record.fileIndex = origin;
  return record;
}

void expectSameOrder(const Functions& a, const Functions& b) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i)
    ASSERT_EQ(a[i].fileIndex, b[i].fileIndex) << i << " of " << a.size();
}

// Lines are assigned to the first record of an address, so types determine the order only here.
TEST(FunctionListTest, KeepsOneRecordAnAddress) {
  static constexpr char kLines[8] = {};
  const std::pair<std::vector<bool>, uint32_t> cases[] = {
      // which records have lines, and which one is kept
      {{false, false, false}, 0},
      {{false, true, true}, 1},
      {{true, false, true}, 0},
      {{false, false, true}, 2},
  };
  for (const auto& [has_lines, kept] : cases) {
    Functions list;
    for (uint32_t i = 0; i < has_lines.size(); ++i) {
      list.push_back(recordAt(1, 0, i, i));
      if (has_lines[i]) list[i].lines = {kLines, false};
    }
    dropDuplicates(list);
    for (const auto& f : list) EXPECT_EQ(f.dropped(), f.fileIndex != kept) << kept;
  }
}

// Sorting keys and moving each record once must leave equal records in the order of a plain sort.
TEST(FunctionListTest, SortsLikeAPlainSortOfTheRecords) {
  std::mt19937 random(4);
  for (const uint32_t size : {0, 1, 2, 15, 17, 100, 5000}) {
    Functions list, plain;
    for (uint32_t i = 0; i < size; ++i) {
      const auto key = static_cast<uint32_t>(random());
      for (auto* functions : {&list, &plain})
        functions->push_back(recordAt(key % 3, key / 3 % 40, key / 120 % 2, i));
    }
    sortFunctions(list);
    std::sort(plain.begin(), plain.end());
    expectSameOrder(list, plain);
  }
}

TEST(FunctionListTest, JoinsPartsAndMergesPublicsLikeAPlainSort) {
  std::mt19937 random(6);
  std::vector<Functions> parts(7);
  Functions list;
  Functions plain;
  PublicFunctions globals;
  for (uint32_t i = 0; i < 4000; ++i) {
    const auto key = static_cast<uint32_t>(random());
    for (Functions* functions : {&parts[i * parts.size() / 4000], &plain})
      functions->push_back(recordAt(1 + key % 2, key / 3 % 900 * 2, key / 5400 % 2, i));
  }
  joinSorted(parts, 10, list);
  std::sort(plain.begin(), plain.end());
  expectSameOrder(list, plain);
  dropDuplicates(list);
  dropDuplicates(plain);
  for (uint32_t i = 0; i < 500; ++i) {
    const uint32_t rva = static_cast<uint32_t>(random()) % 1000 * 2 + 1;
    if (globals.find(rva) != nullptr) continue;
    globals.insert({DataPtr<char>("name", /*allocated=*/false), rva, 1, false, i % 3 == 0});
    if (i % 3 != 0) plain.push_back(recordAt(1, rva, 0, 0));
  }
  std::erase_if(plain, [](const FunctionRecord& f) { return f.dropped(); });
  std::sort(plain.begin(), plain.end());
  mergeGlobals(list, globals);
  expectSameOrder(list, plain);
}

// If a function without a section has the RVA of a public one, the order of a hash table determines
// which is first.
TEST(FunctionListTest, MergesInTheOrderOfAHashTable) {
  constexpr uint32_t kSize = 600;
  std::mt19937 random(5);
  Functions list, plain;
  PublicFunctions globals;
  std::unordered_map<uint32_t, uint32_t> table;
  for (uint32_t i = 0; i < kSize; ++i) {
    for (auto* functions : {&list, &plain}) functions->push_back(recordAt(0, i / 2, 0, 1));
    const auto offset = static_cast<uint32_t>(random() % kSize);
    globals.insert({DataPtr<char>("name", /*allocated=*/false), offset, 0, false, false});
    table.emplace(offset, i);
  }
  for (const auto& entry : table) plain.push_back(recordAt(0, entry.first, 0, 0));
  mergeGlobals(list, globals);
  std::sort(plain.begin(), plain.end());
  expectSameOrder(list, plain);
}

}  // namespace
}  // namespace symforge_internal
