// RangeMap: disjoint address ranges.
//
// A range of size S at base B covers B to B + S - 1, its inclusive `high`. The map's key is the
// high, so a lower bound of an address finds the only range that can contain it.
//
// Inserting in ascending order takes constant time; other inserts and lookups are logarithmic.
// Threads: const operations may run concurrently if EntryType can be copied concurrently; changes
// need exclusive access.

#pragma once

#include <cassert>

#include "base/block_map.h"
#include "processor/logging.h"

namespace google_breakpad {

using symforge_internal::BlockMap;

// How to treat a new range that overlaps stored ones.
enum class MergeRangeStrategy {
  kExclusiveRanges,  // the new range is rejected
  kTruncateLower,    // the range with the lower base loses its upper end
  kTruncateUpper,    // the range with the higher base loses its lower end
};

// What a map stores for a range besides its key.
template <typename AddressType, typename EntryType>
class MovableRange {
 public:
  MovableRange(const AddressType& base, const AddressType& delta, const EntryType& entry)
      : base_(base), delta_(delta), entry_(entry) {}
  AddressType base() const { return base_; }
  // How far the base was moved up after the range was stored.
  AddressType delta() const { return delta_; }
  const EntryType& entry() const { return entry_; }

 private:
  AddressType base_;
  AddressType delta_;
  EntryType entry_;
};

// RangeType: other forms take less memory. A form whose base cannot be moved is for maps with the
// first strategy only.
template <typename AddressType, typename EntryType,
          typename RangeType = MovableRange<AddressType, EntryType>>
class RangeMap {
 public:
  using Range = RangeType;
  // Ordered by high. Iteration yields (high, Range).
  using AddressToRangeMap = BlockMap<AddressType, Range>;

  void SetMergeStrategy(MergeRangeStrategy strategy) { merge_strategy_ = strategy; }
  MergeRangeStrategy GetMergeStrategy() const { return merge_strategy_; }

  // Stores `entry` for `size` addresses starting at `base`. Returns false if the range is rejected:
  // because its size is 0, because it exceeds the largest address (logged, see LogLimit), or by the
  // merge strategy.
  bool StoreRange(const AddressType& base, const AddressType& size, const EntryType& entry) {
    return StoreRangeInternal(base, 0, size, entry);
  }

  // Finds the range that contains `address`. Returns false if there is none. `entry` must not be
  // null; the other output arguments may be.
  bool RetrieveRange(const AddressType& address, EntryType* entry, AddressType* entry_base,
                     AddressType* entry_delta, AddressType* entry_size) const {
    if (!entry) {
      SYMFORGE_LOG(ERROR) << "RangeMap::RetrieveRange requires |entry|";
      assert(entry);
    }
    const Iterator it = map_.lower_bound(address);
    if (it == map_.end() || address < it.value().base()) return false;
    FillResult(it, entry, entry_base, entry_delta, entry_size);
    return true;
  }

  // Finds the range that contains `address`, or else the highest range entirely below it.
  bool RetrieveNearestRange(const AddressType& address, EntryType* entry, AddressType* entry_base,
                            AddressType* entry_delta, AddressType* entry_size) const {
    if (!entry) {
      SYMFORGE_LOG(ERROR) << "RangeMap::RetrieveNearestRange requires |entry|";
      assert(entry);
    }
    Iterator it = map_.lower_bound(address);
    if (it == map_.end() || address < it.value().base()) {
      // The range found, if any, is above `address`; the one before it is the nearest below.
      if (it == map_.begin()) return false;
      --it;
    }
    FillResult(it, entry, entry_base, entry_delta, entry_size);
    return true;
  }

  // Returns the range at position `index` in key order, or false if there is none. Takes linear
  // time: to visit all ranges iterate over GetMap() instead.
  bool RetrieveRangeAtIndex(int index, EntryType* entry, AddressType* entry_base,
                            AddressType* entry_delta, AddressType* entry_size) const {
    if (!entry) {
      SYMFORGE_LOG(ERROR) << "RangeMap::RetrieveRangeAtIndex requires |entry|";
      assert(entry);
    }
    if (index < 0 || index >= GetCount()) return false;
    Iterator it = map_.begin();
    for (int i = 0; i < index; ++i) ++it;
    FillResult(it, entry, entry_base, entry_delta, entry_size);
    return true;
  }

  int GetCount() const { return static_cast<int>(map_.size()); }
  void Clear() { map_.clear(); }
  const AddressToRangeMap& GetMap() const { return map_; }

 private:
  using Iterator = typename AddressToRangeMap::const_iterator;

  static void FillResult(const Iterator& it, EntryType* entry, AddressType* entry_base,
                         AddressType* entry_delta, AddressType* entry_size) {
    const Range& range = it.value();
    *entry = range.entry();
    if (entry_base) *entry_base = range.base();
    if (entry_delta) *entry_delta = range.delta();
    if (entry_size) *entry_size = it.key() - range.base() + 1;
  }

  bool StoreRangeInternal(AddressType base, AddressType delta, AddressType size,
                          const EntryType& entry);
  bool CutLower(const Iterator& other, AddressType base, AddressType* size);
  static bool Overlaps(const Iterator& it, AddressType high) { return it.value().base() <= high; }

  bool enable_shrink_down_ = false;  // reserved, not used
  MergeRangeStrategy merge_strategy_ = MergeRangeStrategy::kExclusiveRanges;
  AddressToRangeMap map_;
  LogLimit log_limit_;
};

// Each iteration truncates the new range or a stored one, and looks again.
template <typename AddressType, typename EntryType, typename RangeType>
bool RangeMap<AddressType, EntryType, RangeType>::StoreRangeInternal(AddressType base,
                                                                     AddressType delta,
                                                                     AddressType size,
                                                                     const EntryType& entry) {
  while (true) {
    if (size == 0) return false;
    const AddressType high = base + size - 1;
    if (high < base) {
      if (log_limit_.Admits()) {
        SYMFORGE_LOG(INFO) << "StoreRangeInternal failed, " << HexString(base) << "+"
                           << HexString(size) << ", " << HexString(high)
                           << ", delta: " << HexString(delta);
      }
      return false;
    }
    if (map_.empty() || map_.last_key() < base) {  // ascending order: no search needed
      return map_.insert(high, Range(base, delta, entry));
    }
    const Iterator at_base = map_.lower_bound(base);
    // If the range found reaches `high`, it is also the lower bound of `high`.
    const bool ends_inside = at_base != map_.end() && at_base.key() < high;
    if (!ends_inside && (at_base == map_.end() || !Overlaps(at_base, high))) {
      return map_.insert(high, Range(base, delta, entry));
    }
    switch (merge_strategy_) {
      case MergeRangeStrategy::kExclusiveRanges:
        return false;
      case MergeRangeStrategy::kTruncateLower:
        if (!CutLower(at_base, base, &size)) return false;
        break;
      case MergeRangeStrategy::kTruncateUpper:
        if (ends_inside) {
          // The new range loses what is at or below the end of the stored one.
          const AddressType cut = at_base.key() - base + 1;
          base += cut;
          delta += cut;
          size -= cut;
        } else {
          // The stored range loses what is at or below the end of the new one.
          if (high >= at_base.key()) return false;
          const Range other = at_base.value();
          map_.value_at(at_base) =
              Range(high + 1, other.delta() + (high + 1 - other.base()), other.entry());
        }
        break;
    }
  }
}

// kTruncateLower: truncates the new range before the stored one, or the stored one before the new
// one.
template <typename AddressType, typename EntryType, typename RangeType>
bool RangeMap<AddressType, EntryType, RangeType>::CutLower(const Iterator& other, AddressType base,
                                                           AddressType* size) {
  const AddressType other_base = other.value().base();
  if (base == other_base) return false;
  if (base < other_base) {
    *size = other_base - base;
  } else {
    const Range cut = other.value();
    map_.erase(other);
    map_.insert(base - 1, cut);
  }
  return true;
}

}  // namespace google_breakpad
