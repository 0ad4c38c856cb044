// ContainedRangeMap: address ranges nested in one another.
//
// A range of size S at base B is inclusive: it covers B to B + S - 1, its `high`. Two ranges may be
// disjoint, or one may lie in the other (a shared first or last address is no obstacle); a range
// that would cut another in part is refused, as is one that is stored already. The result does not
// depend on the order of storing: a wide range stored after its narrow ones takes them over.
//
//   ContainedRangeMap<uint64_t, int> map;
//   map.StoreRange(0x1000, 0x100, 1);
//   map.StoreRange(0x1010, 0x10, 2);
//   int entry;
//   map.RetrieveRange(0x1018, &entry);   // true, 2
//   if (map.Map()) for (const auto& [high, range] : *map.Map()) visit(high, range->Base(), ...);
//
// Each range is a node with a map of the ranges directly inside it. Nodes come from an arena that
// the map as a whole owns, so a range costs no allocation of its own, and destruction does not
// recurse. Storing is logarithmic in the number of ranges at each level that is passed, and begins
// where the way to the range stored last parts from the way to the new one, not at the outermost:
// ranges that arrive in the order of nesting cost the same at any depth. In other orders a range
// can cost as much as the depth of nesting, or as the number of ranges that it takes over;
// StoreRanges() takes n log n for any order. Walks by hand should not recurse either: how deep
// ranges nest is up to the input.
//
// Not safe for concurrent changes; const operations are safe together when copying an EntryType is.

#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

#include "base/block_map.h"
#include "base/range_nesting.h"
#include "processor/logging.h"

namespace google_breakpad {

using symforge_internal::BlockMap;

template <typename AddressType, typename EntryType>
class ContainedRangeMap;

// One range and the ranges inside it. Ranges do not know their own end: it is their key in the map
// of the range around them.
template <typename AddressType, typename EntryType>
class ContainedRange {
 public:
  // Ordered by high; the ranges are disjoint and each lies inside the one that holds the map.
  using AddressToRangeMap = BlockMap<AddressType, ContainedRange*>;

  ContainedRange(const AddressType& base, const EntryType& entry,
                 std::unique_ptr<AddressToRangeMap> map)
      : base_(base), entry_(entry), map_(std::move(map)) {}

  AddressType Base() const { return base_; }
  const EntryType& Entry() const { return entry_; }
  // The ranges directly inside this one; null if there are none.
  const AddressToRangeMap* Map() const { return map_.get(); }

  // The entry of the narrowest range inside this one that holds `address`. False if there is none,
  // or if more than `max_depth` ranges hold it. `entry` must not be null.
  bool RetrieveRange(const AddressType& address, EntryType* entry,
                     size_t max_depth = SIZE_MAX) const {
    if (!entry) {
      SYMFORGE_LOG(ERROR) << "ContainedRangeMap::RetrieveRange requires |entry|";
      assert(entry);
    }
    const ContainedRange* deepest = nullptr;
    for (auto* range = ChildAt(address); range != nullptr; range = range->ChildAt(address)) {
      if (max_depth-- == 0) return false;
      deepest = range;
    }
    if (deepest == nullptr) return false;
    *entry = deepest->entry_;
    return true;
  }

  // Appends to `entries` those of all ranges inside this one that hold `address`, the widest first.
  // False if there are none.
  bool RetrieveRangeStack(const AddressType& address, std::vector<EntryType>& entries) const {
    const ContainedRange* range = ChildAt(address);
    if (range == nullptr) return false;
    for (; range != nullptr; range = range->ChildAt(address)) entries.push_back(range->entry_);
    return true;
  }

 private:
  friend class ContainedRangeMap<AddressType, EntryType>;

  const ContainedRange* ChildAt(const AddressType& address) const {
    if (!map_) return nullptr;
    const auto it = map_->lower_bound(address);
    return it == map_->end() || address < it.value()->base_ ? nullptr : it.value();
  }

  AddressType base_;
  EntryType entry_;
  std::unique_ptr<AddressToRangeMap> map_;
};

// The root: a range over all addresses with the base 0 and an empty entry, which no lookup gives.
template <typename AddressType, typename EntryType>
class ContainedRangeMap : public ContainedRange<AddressType, EntryType> {
 public:
  using Range = ContainedRange<AddressType, EntryType>;
  using AddressToRangeMap = typename Range::AddressToRangeMap;

  ContainedRangeMap() : Range(0, EntryType(), nullptr) {}
  ContainedRangeMap(const ContainedRangeMap&) = delete;
  ContainedRangeMap& operator=(const ContainedRangeMap&) = delete;

  // False if the range is refused: empty, past the largest address, stored already, or cutting a
  // stored one in part. A refused range leaves no trace.
  bool StoreRange(const AddressType& base, const AddressType& size, const EntryType& entry);

  // An inclusive range: `high`, its last address, is not below `base`.
  using Extent = typename symforge_internal::RangeNesting<AddressType>::Range;

  // Stores ranges one after the other in an empty map, with the result that StoreRange gives, in
  // n log n time for any order. `entry_at(i)` returns the entry of extents[i].
  template <typename EntryAt>
  void StoreRanges(const std::vector<Extent>& extents, EntryAt entry_at);

  // Removes all ranges and releases their memory.
  void Clear() {
    path_.clear();
    nodes_.clear();
    this->map_.reset();
  }

 private:
  using Iterator = typename AddressToRangeMap::const_iterator;

  // A step of the way down to the range stored last, or further down; a range knows its end only
  // here.
  struct Step {
    Range* range;
    AddressType high;
    bool Holds(AddressType base, AddressType end) const {
      return range->Base() <= base && end <= high;
    }
    bool Is(AddressType base, AddressType end) const {
      return range->Base() == base && end == high;
    }
  };

  // The nodes of all ranges, at addresses that stay, in blocks of doubling size.
  class NodeArena {
   public:
    template <typename... Args>
    Range* create(Args&&... args) {
      if (blocks_.empty() || blocks_.back().size() == blocks_.back().capacity()) add_block();
      return &blocks_.back().emplace_back(std::forward<Args>(args)...);
    }
    void clear() { blocks_.clear(); }

   private:
    void add_block() {
      constexpr size_t kFirst = 8, kLargest = 1024;
      const size_t nodes =
          blocks_.empty() ? kFirst : std::min(blocks_.back().capacity() * 2, kLargest);
      blocks_.emplace_back().reserve(nodes);
    }
    std::vector<std::vector<Range>> blocks_;
  };

  size_t GoDown(AddressType base, AddressType high);
  static std::unique_ptr<AddressToRangeMap> TakeOver(AddressToRangeMap& map, Iterator it,
                                                     AddressType high);

  NodeArena nodes_;
  // Ranges that arrive from the inside out are put in at the front, others at the end.
  std::deque<Step> path_;
};

template <typename AddressType, typename EntryType>
bool ContainedRangeMap<AddressType, EntryType>::StoreRange(const AddressType& base,
                                                           const AddressType& size,
                                                           const EntryType& entry) {
  const AddressType high = base + size - 1;
  if (size == 0 || high < base) return false;
  const size_t depth = GoDown(base, high);
  if (depth > 0 && path_[depth - 1].Is(base, high)) return false;

  Range* around = depth == 0 ? this : path_[depth - 1].range;
  if (!around->map_) around->map_ = std::make_unique<AddressToRangeMap>();
  AddressToRangeMap& map = *around->map_;
  const Iterator at_base = map.lower_bound(base);
  if (at_base != map.end() && base > at_base.value()->base_) return false;  // cuts its upper part
  const Iterator at_high = map.lower_bound(high);
  const bool reaches_child = at_high != map.end() && high >= at_high.value()->base_;
  if (reaches_child && high < at_high.key()) return false;  // cuts its lower part

  std::unique_ptr<AddressToRangeMap> inside;
  if (at_base != at_high || reaches_child) inside = TakeOver(map, at_base, high);
  Range* range = nodes_.create(base, entry, std::move(inside));
  map.insert(high, range);
  // The way down goes through the new range; what lay on it below stays if it lies inside.
  const bool inside_new =
      depth < path_.size() && base <= path_[depth].range->Base() && path_[depth].high <= high;
  if (!inside_new) path_.resize(depth);
  path_.insert(path_.begin() + static_cast<ptrdiff_t>(depth), {range, high});
  return true;
}

template <typename AddressType, typename EntryType>
template <typename EntryAt>
void ContainedRangeMap<AddressType, EntryType>::StoreRanges(const std::vector<Extent>& extents,
                                                            EntryAt entry_at) {
  assert(!this->map_);
  symforge_internal::RangeNesting<AddressType> nesting;
  std::vector<Step> open;  // the ranges around the present one
  for (const uint32_t position : nesting.nest(extents)) {
    const auto [base, high] = extents[position];
    while (!open.empty() && open.back().high < base) open.pop_back();
    Range* around = open.empty() ? this : open.back().range;
    if (!around->map_) around->map_ = std::make_unique<AddressToRangeMap>();
    Range* range = nodes_.create(base, entry_at(position), nullptr);
    around->map_->insert(high, range);
    open.push_back({range, high});
  }
}

// Makes the way down lead to the innermost range that holds [base, high], and returns how many
// steps of it do. Steps behind these are part of the last way down, and are still right.
template <typename AddressType, typename EntryType>
size_t ContainedRangeMap<AddressType, EntryType>::GoDown(AddressType base, AddressType high) {
  const auto holds = [&](const Step& step) { return step.Holds(base, high); };
  auto depth =
      static_cast<size_t>(std::partition_point(path_.begin(), path_.end(), holds) - path_.begin());
  while (true) {
    if (depth > 0 && path_[depth - 1].Is(base, high)) return depth;
    const Range* around = depth == 0 ? this : path_[depth - 1].range;
    if (!around->map_) return depth;
    const Iterator child = around->map_->lower_bound(base);
    // The child's end is at or above `base`; it holds the range if its end is also at or above
    // `high`.
    if (child == around->map_->end() || child.key() < high || base < child.value()->base_) {
      return depth;
    }
    path_.resize(depth);
    path_.push_back({child.value(), child.key()});
    ++depth;
  }
}

// Moves the ranges from `it` on that end at or below `high` into a map of their own.
template <typename AddressType, typename EntryType>
auto ContainedRangeMap<AddressType, EntryType>::TakeOver(AddressToRangeMap& map, Iterator it,
                                                         AddressType high)
    -> std::unique_ptr<AddressToRangeMap> {
  auto inside = std::make_unique<AddressToRangeMap>();
  while (it != map.end() && it.key() <= high) {
    inside->insert(it.key(), it.value());
    it = map.erase(it);
  }
  return inside;
}

}  // namespace google_breakpad
