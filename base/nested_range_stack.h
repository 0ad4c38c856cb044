// NestedRangeStack: follows a list of nested ranges in pre-order and knows, at each of them, the
// ranges around it.
//
// The inline sites of a function are such a list. A tree of ranges that is built from them in order
// (google_breakpad::ContainedRangeMap) would store every one of them, as a child of the range that
// is on top of the stack here. That holds because the first addresses of accepted ranges never
// decrease and because every range accepted before either is on the stack and holds the new one,
// or ends below it: so at each level of the tree the new range falls into the one child that is on
// the stack, and on the last level behind all children.
//
// Addresses are 64 bits wide, so that no end of a 32-bit range wraps. One thread at a time.

#pragma once

#include <cstdint>
#include <memory_resource>
#include <vector>

namespace symforge_internal {

class NestedRangeStack {
 public:
  enum class Place {
    kInside,      // stored, as the narrowest range so far around its addresses
    kNothing,     // empty, equal to the range on top or cut by its end: a tree would refuse it
    kOutOfOrder,  // begins before the last range, or is around it: only a tree can tell
  };

  // `base` + `size` must not wrap. A range equal to the one on top is inside it if its `depth` is
  // greater by 1.
  Place add(uint64_t base, uint64_t size, uint64_t depth = 0) {
    if (size == 0) return Place::kNothing;
    if (base < position_) return Place::kOutOfOrder;
    position_ = base;
    const uint64_t high = base + size - 1;
    while (!around_.empty() && around_.back().high < base) around_.pop_back();
    if (!around_.empty()) {
      const Range& top = around_.back();
      if (high > top.high) return base == top.base ? Place::kOutOfOrder : Place::kNothing;
      if (base == top.base && high == top.high && depth != top.depth + 1) return Place::kNothing;
    }
    around_.push_back({base, high, depth});
    return Place::kInside;
  }

  // Forgets all ranges; memory is kept.
  void clear() {
    around_.clear();
    position_ = 0;
  }

 private:
  struct Range {
    uint64_t base;
    uint64_t high;
    uint64_t depth;
  };

  // Real nesting fits in the object itself, so that a lookup allocates nothing here.
  static constexpr size_t kUsualDepth = 32;
  alignas(Range) char memory_[kUsualDepth * sizeof(Range)];
  std::pmr::monotonic_buffer_resource resource_{memory_, sizeof(memory_)};
  std::pmr::vector<Range> around_ = reserved();
  uint64_t position_ = 0;  // the first address of the last range

  std::pmr::vector<Range> reserved() {
    std::pmr::vector<Range> ranges(&resource_);
    ranges.reserve(kUsualDepth);
    return ranges;
  }
};

}  // namespace symforge_internal
