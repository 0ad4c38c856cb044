// Compares the address containers with simple models: RangeMap with each strategy for overlaps,
// ContainedRangeMap filled at once and one by one, BlockMap with blocks that split and become
// empty. The input is a list of 8-byte operations.

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <numeric>
#include <vector>

#include "fuzz/harness.h"
#include "processor/contained_range_map.h"
#include "processor/range_map.h"

using fuzzing::require;
using google_breakpad::ContainedRangeMap;
using google_breakpad::MergeRangeStrategy;
using google_breakpad::RangeMap;

namespace {

struct Operation {
  uint16_t kind;
  uint16_t size;
  uint32_t base;
};

std::vector<Operation> operations_in(const uint8_t* data, size_t size) {
  constexpr size_t kEnough = 4096;
  std::vector<Operation> operations(std::min(size / sizeof(Operation), kEnough));
  if (!operations.empty()) {
    std::memcpy(operations.data(), data, operations.size() * sizeof(Operation));
  }
  return operations;
}

// The operation that covers each address, after storing them one by one with the strategy.
class CoverageModel {
 public:
  static constexpr uint32_t kSpace = 1024;

  explicit CoverageModel(MergeRangeStrategy strategy) : strategy_(strategy) { owner_.fill(-1); }

  // Each strategy by single addresses. Which of two ranges with the same base is the lower one is
  // undefined, so such a range is rejected, and so is one that would become empty.
  bool store(uint32_t base, uint32_t size, int entry) {
    int first = -1;
    for (uint32_t at = base; at < base + size && first == -1; ++at) first = owner_[at];
    if (first == -1) return put(base, size, entry);
    uint32_t other = 0, other_high = 0;
    for (uint32_t at = 0; at < kSpace; ++at) {
      if (owner_[at] != first) continue;
      if (other_high == 0) other = at;
      other_high = at + 1;
    }
    if (strategy_ == MergeRangeStrategy::kExclusiveRanges) return false;
    const bool ends_inside = other_high < base + size;
    if (strategy_ == MergeRangeStrategy::kTruncateLower) {
      if (base == other) return false;
      if (base < other) return store(base, other - base, entry);
      for (uint32_t at = base; at < other_high; ++at) owner_[at] = -1;
      return store(base, size, entry);
    }
    if (ends_inside) return store(other_high, base + size - other_high, entry);
    if (base + size >= other_high) return false;
    for (uint32_t at = other; at < base + size; ++at) owner_[at] = -1;
    return store(base, size, entry);
  }
  int at(uint32_t address) const { return owner_[address]; }

 private:
  bool put(uint32_t base, uint32_t size, int entry) {
    std::fill_n(owner_.begin() + base, size, entry);
    return size != 0;
  }

  MergeRangeStrategy strategy_;
  std::array<int, kSpace> owner_;
};

void check_range_map(const std::vector<Operation>& operations, MergeRangeStrategy strategy) {
  constexpr size_t kMany = 200;
  CoverageModel model(strategy);
  RangeMap<uint32_t, int> map;
  map.SetMergeStrategy(strategy);
  for (size_t i = 0; i < std::min(operations.size(), kMany); ++i) {
    const uint32_t base = operations[i].base % CoverageModel::kSpace;
    const uint32_t size = std::min<uint32_t>(operations[i].size % 64, CoverageModel::kSpace - base);
    const int entry = static_cast<int>(i);
    require(map.StoreRange(base, size, entry) == model.store(base, size, entry), "one answer");
  }
  for (uint32_t at = 0; at < CoverageModel::kSpace; ++at) {
    int entry = -1;
    map.RetrieveRange(at, &entry, nullptr, nullptr, nullptr);
    require(entry == model.at(at), "one owner of each address");
  }
}

void check_contained(const std::vector<Operation>& operations) {
  using Map = ContainedRangeMap<uint32_t, int>;
  Map one_by_one, at_once;
  std::vector<Map::Extent> extents;
  for (const Operation& operation : operations) {
    const uint32_t base = operation.base % 4096, size = operation.size % 512;
    if (size == 0) continue;
    one_by_one.StoreRange(base, size, static_cast<int>(extents.size()));
    extents.push_back({base, base + size - 1});
  }
  std::vector<int> entries(extents.size());
  std::iota(entries.begin(), entries.end(), 0);
  at_once.StoreRanges(extents, entries);
  for (uint32_t at = 0; at < 4096 + 512; ++at) {
    std::vector<int> a, b;
    one_by_one.RetrieveRangeStack(at, a);
    at_once.RetrieveRangeStack(at, b);
    require(a == b, "one nesting");
  }
}

// An operation inserts or erases up to 255 consecutive keys.
void check_block_map(const std::vector<Operation>& operations) {
  constexpr size_t kMany = 300;
  symforge_internal::BlockMap<uint32_t, int> map;
  std::map<uint32_t, int> model;
  for (size_t i = 0; i < std::min(operations.size(), kMany); ++i) {
    const Operation& operation = operations[i];
    const uint32_t stride = 1 + operation.size / 256 % 8;
    for (uint32_t n = 0; n < operation.size % 256; ++n) {
      const uint32_t key = operation.base % 65536 + n * stride;
      if (operation.kind % 4 != 0) {
        const int value = static_cast<int>(i);
        require(map.insert(key, value) == model.emplace(key, value).second, "one insertion");
      } else if (const auto found = map.find(key); found != map.end()) {
        map.erase(found);
        require(model.erase(key) == 1, "one entry to erase");
      }
    }
  }
  require(map.size() == model.size(), "one size");
  auto expected = model.begin();
  for (const auto& [key, value] : map) {
    require(key == expected->first && value == expected->second, "one order");
    ++expected;
  }
}

}  // namespace

FUZZ_TARGET(range_containers)(const uint8_t* data, size_t size) {
  const std::vector<Operation> operations = operations_in(data, size);
  for (const auto strategy :
       {MergeRangeStrategy::kExclusiveRanges, MergeRangeStrategy::kTruncateLower,
        MergeRangeStrategy::kTruncateUpper}) {
    check_range_map(operations, strategy);
  }
  check_contained(operations);
  check_block_map(operations);
  return 0;
}
