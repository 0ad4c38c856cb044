// NestedRangeStack: processes a list of nested ranges in pre-order; at each range it holds those
// that contain it.
//
// The inline sites of a function are such a list. For a list in pre-order the stack accepts the
// same ranges as google_breakpad::ContainedRangeMap, which accepts ranges in any order, and gives
// each the same parent; but it needs no tree. This holds because accepted ranges never start before
// an earlier one: an accepted range that is no longer on the stack ends before the new range, so
// only ranges on the stack can contain the new one or cross its ends.
//
// Addresses are 64 bits wide so that the end of a 32-bit range cannot wrap. One thread at a time.

#pragma once

#include <cstdint>
#include <memory_resource>
#include <vector>

namespace symforge_internal {

class NestedRangeStack {
 public:
  enum class Result {
    kNested,      // accepted; the innermost range so far at its addresses
    kIgnored,     // empty, equal to the top, or crossing its end: a tree rejects it
    kOutOfOrder,  // starts before the last range or contains it: needs a tree
  };

  // Processes the next range. `base` + `size` must not wrap. A range equal to the top is accepted
  // if its `depth` is greater by exactly 1.
  Result add(uint64_t base, uint64_t size, uint64_t depth = 0) {
    if (size == 0) return Result::kIgnored;
    if (base < position_) return Result::kOutOfOrder;
    position_ = base;
    const uint64_t high = base + size - 1;
    while (!around_.empty() && around_.back().high < base) around_.pop_back();
    if (!around_.empty()) {
      const Range& top = around_.back();
      if (high > top.high) return base == top.base ? Result::kOutOfOrder : Result::kIgnored;
      if (base == top.base && high == top.high && depth != top.depth + 1) return Result::kIgnored;
    }
    around_.push_back({base, high, depth});
    return Result::kNested;
  }

  // Removes all ranges; keeps the memory.
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

  // Usual depths fit into the object itself, so that a lookup does not allocate.
  static constexpr size_t kUsualDepth = 32;
  alignas(Range) char memory_[kUsualDepth * sizeof(Range)];
  std::pmr::monotonic_buffer_resource resource_{memory_, sizeof(memory_)};
  std::pmr::vector<Range> around_ = reserved();
  uint64_t position_ = 0;  // first address of the last range

  std::pmr::vector<Range> reserved() {
    std::pmr::vector<Range> ranges(&resource_);
    ranges.reserve(kUsualDepth);
    return ranges;
  }
};

}  // namespace symforge_internal
