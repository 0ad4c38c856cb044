// RangeNesting: which of a sequence of address ranges form a tree by containment, and the order in
// which that tree is walked.
//
// The outcome is that of storing the ranges one after the other in a ContainedRangeMap, whose rules
// are: a range is refused when it equals one that was kept, or cuts one in part. So what is kept
// nests, whatever the order, and a walk that visits a range before the ranges inside it, and
// disjoint ones by address, goes by (base ascending, end descending).
//
// Time is n log n for every order and depth of nesting. There is one block of memory for each
// purpose, used again by the next call, and nothing recurses. At most 2^32 - 1 ranges.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace symforge_internal {

// Address: uint32_t or uint64_t.
template <typename Address>
class RangeNesting {
 public:
  // Inclusive: the last address is `high`, not below `base`.
  struct Range {
    Address base;
    Address high;
  };

  // Positions of the ranges that are kept, in the order of the walk. Valid until the next call.
  const std::vector<uint32_t>& nest(const std::vector<Range>& ranges);

 private:
  // The last address of a kept range, or none.
  struct End {
    Address high;
    bool found;
  };

  void sort_and_drop_repeated(const std::vector<Range>& ranges);
  bool some_cross(const std::vector<Range>& ranges);
  void drop_refused(const std::vector<Range>& ranges);
  bool crosses_kept(const Range& range) const;
  void keep(size_t place, Address high);
  Address highest_in(size_t first, size_t last) const;
  End last_reaching(size_t place, Address address) const;

  std::vector<uint32_t> order_;   // positions of ranges; a place is an index in this
  std::vector<Address> open_;     // last addresses of the ranges around the present one
  std::vector<Address> bases_;    // by place
  std::vector<uint32_t> places_;  // by position of the range; kDropped if it is not kept
  // The last addresses of the ranges that were kept so far, as a max segment tree: places are the
  // leaves, each inner node holds the larger of its two children, the root is node 1. 0: none, or a
  // range that ends at 0; where the tree is asked, no such range counts.
  std::vector<Address> ends_;
  size_t leaves_ = 0;
};

extern template class RangeNesting<uint32_t>;
extern template class RangeNesting<uint64_t>;

}  // namespace symforge_internal
