// NestedRangeSet: which of a sequence of address ranges form a tree by containment, and the order
// in which that tree is walked.
//
// The outcome is that of storing the ranges one after the other in a ContainedRangeMap, whose rules
// come to this: a range is refused when it equals one that was kept, or cuts one in part; so what
// is kept nests, whatever the order, and a walk that visits a range before the ranges inside it,
// and disjoint ones by address, goes by (base ascending, end descending). A function can have many
// thousands of ranges, nested as deep: O(log n) per range, no recursion, buffers reused across
// functions.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace symforge_internal {

// Inclusive: the last address is `high`, not below `base`.
struct AddressRange {
  uint32_t base;
  uint32_t high;
};

class NestedRangeSet {
 public:
  // Positions of the ranges that are kept, in the order of the walk. Valid until the next call.
  const std::vector<uint32_t>& nest(const std::vector<AddressRange>& ranges);

 private:
  void sortAndDropRepeated(const std::vector<AddressRange>& ranges);
  bool someCross(const std::vector<AddressRange>& ranges);
  void dropRefused(const std::vector<AddressRange>& ranges);
  bool crossesKept(const AddressRange& range) const;
  void keep(size_t place, uint32_t high);
  uint64_t highestIn(size_t first, size_t last) const;
  uint64_t lastReaching(size_t place, uint32_t address) const;

  std::vector<uint32_t> m_order;   // positions of ranges; a place is an index in this
  std::vector<uint32_t> m_open;    // ends of the ranges around the present one
  std::vector<uint32_t> m_bases;   // by place
  std::vector<uint32_t> m_places;  // by position of the range
  // The ends of the ranges that were kept so far, plus 1, as a max segment tree over m_order:
  // each inner node holds the larger of its two children, the root is node 1. 0: none.
  std::vector<uint64_t> m_ends;
  size_t m_leaves = 0;
};

}  // namespace symforge_internal
