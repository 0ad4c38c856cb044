// ContainedRangeMap: nested address ranges.
//
// A range of size S at base B covers B to B + S - 1, its inclusive `high`. Two ranges may be
// disjoint, or one may contain the other (they may share a first or last address). A range that
// partially overlaps another is rejected, and so is one that is stored already. A wide range may be
// stored after the narrow ones inside it, which then become its children.
//
//   ContainedRangeMap<uint64_t, int> map;
//   map.StoreRange(0x1000, 0x100, 1);
//   map.StoreRange(0x1010, 0x10, 2);
//   int entry;
//   map.RetrieveRange(0x1018, &entry);   // true, 2
//   if (map.Map()) for (const auto& [high, range] : *map.Map()) visit(high, range->Base(), ...);
//
// Each range is a node with a map of the ranges directly inside it. The nodes are stored in an
// arena owned by the root, so a range needs no allocation of its own, and destruction is not
// recursive.
//
// StoreRange() is logarithmic in the number of ranges at each level that it visits. It starts at
// the deepest range shared by the paths to the last range and to the new one, so ranges stored in
// pre-order cost the same at any depth. In other orders a range can cost as much as the nesting
// depth, or the number of ranges that become its children. StoreRanges() takes O(n log n) for any
// order. Code that traverses the tree should not recurse, because input determines the depth.
//
// Threads: const operations may run concurrently if EntryType can be copied concurrently; changes
// need exclusive access.

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

// One range and the ranges inside it. A range does not store its end, which is its key in the map
// of its parent.
template <typename AddressType, typename EntryType>
class ContainedRange {
 public:
  // Ordered by high. The ranges are disjoint and inside the range that owns the map.
  using AddressToRangeMap = BlockMap<AddressType, ContainedRange*>;

  ContainedRange(const AddressType& base, const EntryType& entry,
                 std::unique_ptr<AddressToRangeMap> map)
      : base_(base), entry_(entry), map_(std::move(map)) {}

  AddressType Base() const { return base_; }
  const EntryType& Entry() const { return entry_; }
  // The ranges directly inside this one; null if there are none.
  const AddressToRangeMap* Map() const { return map_.get(); }

  // Finds the narrowest range inside this one that contains `address`. Returns false if there is
  // none, or if more than `max_depth` ranges contain it. `entry` must not be null.
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

  // Appends the entries of all ranges inside this one that contain `address`, the widest first.
  // Returns false if there are none.
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

// The root: a range over all addresses with base 0 and an empty entry, which lookups do not return.
template <typename AddressType, typename EntryType>
class ContainedRangeMap : public ContainedRange<AddressType, EntryType> {
 public:
  using Range = ContainedRange<AddressType, EntryType>;
  using AddressToRangeMap = typename Range::AddressToRangeMap;

  ContainedRangeMap() : Range(0, EntryType(), nullptr) {}
  ContainedRangeMap(const ContainedRangeMap&) = delete;
  ContainedRangeMap& operator=(const ContainedRangeMap&) = delete;

  // Returns false and changes nothing if the range is rejected: because it is empty, exceeds the
  // largest address, is stored already, or partially overlaps a stored one.
  bool StoreRange(const AddressType& base, const AddressType& size, const EntryType& entry);

  // An inclusive range: `high` is its last address and not less than `base`.
  using Extent = typename symforge_internal::RangeNesting<AddressType>::Range;

  // Stores ranges in an empty map, with the same result as StoreRange() one by one, in O(n log n)
  // time for any order. entries[i] belongs to extents[i]; Entries is a vector or a deque.
  template <typename Entries>
  void StoreRanges(const std::vector<Extent>& extents, const Entries& entries);

  // The memory of all ranges. Takes linear time.
  size_t byte_count() const { return map_bytes(*this) + nodes_.byte_count(); }

  // Removes all ranges and releases their memory.
  void Clear() {
    path_.clear();
    nodes_.clear();
    this->map_.reset();
  }

 private:
  using Iterator = typename AddressToRangeMap::const_iterator;

  static size_t map_bytes(const Range& range) {
    return range.map_ ? sizeof(AddressToRangeMap) + range.map_->byte_count() : 0;
  }

  // A step of the path to the range stored last. The end of a range is only stored here.
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

  // The nodes of all ranges, at stable addresses in blocks of doubling size.
  class NodeArena {
   public:
    template <typename... Args>
    Range* create(Args&&... args) {
      if (blocks_.empty() || blocks_.back().size() == blocks_.back().capacity()) add_block();
      return &blocks_.back().emplace_back(std::forward<Args>(args)...);
    }
    void clear() { blocks_.clear(); }
    size_t byte_count() const {
      size_t bytes = 0;
      for (const std::vector<Range>& block : blocks_) {
        bytes += block.capacity() * sizeof(Range);
        for (const Range& range : block) bytes += map_bytes(range);
      }
      return bytes;
    }

   private:
    void add_block() {
      constexpr size_t kFirst = 8, kLargest = 1024;
      const size_t nodes =
          blocks_.empty() ? kFirst : std::min(blocks_.back().capacity() * 2, kLargest);
      blocks_.emplace_back().reserve(nodes);
    }
    std::vector<std::vector<Range>> blocks_;
  };

  size_t Descend(AddressType base, AddressType high);
  static std::unique_ptr<AddressToRangeMap> ExtractContained(AddressToRangeMap& map, Iterator it,
                                                             AddressType high);

  NodeArena nodes_;
  // Ranges stored from the inside out are inserted at the front, others at the end.
  std::deque<Step> path_;
};

template <typename AddressType, typename EntryType>
bool ContainedRangeMap<AddressType, EntryType>::StoreRange(const AddressType& base,
                                                           const AddressType& size,
                                                           const EntryType& entry) {
  const AddressType high = base + size - 1;
  if (size == 0 || high < base) return false;
  const size_t depth = Descend(base, high);
  if (depth > 0 && path_[depth - 1].Is(base, high)) return false;

  Range* around = depth == 0 ? this : path_[depth - 1].range;
  if (!around->map_) around->map_ = std::make_unique<AddressToRangeMap>();
  AddressToRangeMap& map = *around->map_;
  const Iterator at_base = map.lower_bound(base);
  if (at_base != map.end() && base > at_base.value()->base_) return false;  // crosses its end
  const Iterator at_high = map.lower_bound(high);
  const bool reaches_child = at_high != map.end() && high >= at_high.value()->base_;
  if (reaches_child && high < at_high.key()) return false;  // crosses its base

  std::unique_ptr<AddressToRangeMap> inside;
  if (at_base != at_high || reaches_child) inside = ExtractContained(map, at_base, high);
  Range* range = nodes_.create(base, entry, std::move(inside));
  map.insert(high, range);
  // The path leads through the new range. Steps below it are kept if they are inside it.
  const bool inside_new =
      depth < path_.size() && base <= path_[depth].range->Base() && path_[depth].high <= high;
  if (!inside_new) path_.resize(depth);
  path_.insert(path_.begin() + static_cast<ptrdiff_t>(depth), {range, high});
  return true;
}

template <typename AddressType, typename EntryType>
template <typename Entries>
void ContainedRangeMap<AddressType, EntryType>::StoreRanges(const std::vector<Extent>& extents,
                                                            const Entries& entries) {
  assert(!this->map_);
  assert(extents.size() == entries.size());
  symforge_internal::RangeNesting<AddressType> nesting;
  std::deque<Step> open;  // the ranges around the current one
  for (const uint32_t position : nesting.nest(extents)) {
    const auto [base, high] = extents[position];
    while (!open.empty() && open.back().high < base) open.pop_back();
    Range* around = open.empty() ? this : open.back().range;
    if (!around->map_) around->map_ = std::make_unique<AddressToRangeMap>();
    Range* range = nodes_.create(base, entries[position], nullptr);
    around->map_->insert(high, range);
    open.push_back({range, high});
  }
}

// Descends to the innermost range that contains [base, high], and returns the number of steps of
// the path up to it. The steps after these belong to the previous path and are still valid.
template <typename AddressType, typename EntryType>
size_t ContainedRangeMap<AddressType, EntryType>::Descend(AddressType base, AddressType high) {
  const auto holds = [&](const Step& step) { return step.Holds(base, high); };
  auto depth =
      static_cast<size_t>(std::partition_point(path_.begin(), path_.end(), holds) - path_.begin());
  while (true) {
    if (depth > 0 && path_[depth - 1].Is(base, high)) return depth;
    const Range* around = depth == 0 ? this : path_[depth - 1].range;
    if (!around->map_) return depth;
    const Iterator child = around->map_->lower_bound(base);
    // The end of the child is at or above `base`. The child contains the range if its end is also
    // at or above `high`.
    if (child == around->map_->end() || child.key() < high || base < child.value()->base_) {
      return depth;
    }
    path_.resize(depth);
    path_.push_back({child.value(), child.key()});
    ++depth;
  }
}

// Moves the ranges from `it` on that end at or below `high` to a new map.
template <typename AddressType, typename EntryType>
auto ContainedRangeMap<AddressType, EntryType>::ExtractContained(AddressToRangeMap& map,
                                                                 Iterator it, AddressType high)
    -> std::unique_ptr<AddressToRangeMap> {
  auto inside = std::make_unique<AddressToRangeMap>();
  while (it != map.end() && it.key() <= high) {
    inside->insert(it.key(), it.value());
    it = map.erase(it);
  }
  return inside;
}

}  // namespace google_breakpad
