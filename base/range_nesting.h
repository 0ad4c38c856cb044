// RangeNesting: selects from a sequence of address ranges those that form a tree by containment,
// and returns them in pre-order.
//
// The result is that of storing the ranges one by one in a ContainedRangeMap: a range is rejected
// when it equals an accepted one or partially overlaps one. So accepted ranges nest, whatever their
// input order, and sorting them by (base ascending, end descending) gives the pre-order.
//
// Takes O(n log n) time for any order and depth of nesting, without recursion. Buffers are reused
// by the next call. At most 2^32 - 1 ranges.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace symforge_internal {

// Address: uint32_t or uint64_t.
template <typename Address>
class RangeNesting {
 public:
  // An inclusive range: `high` is its last address and not less than `base`.
  struct Range {
    Address base;
    Address high;
  };

  // Returns the indexes of the accepted ranges in pre-order. Valid until the next call.
  const std::vector<uint32_t>& nest(const std::vector<Range>& ranges);

 private:
  // The last address of an accepted range, or none.
  struct End {
    Address high;
    bool found;
  };

  void sort_and_drop_repeated(const std::vector<Range>& ranges);
  bool some_cross(const std::vector<Range>& ranges);
  void drop_refused(const std::vector<Range>& ranges);
  bool crosses_kept(const Range& range) const;
  void keep(size_t rank, Address high);
  Address highest_in(size_t first, size_t last) const;
  End last_reaching(size_t rank, Address address) const;

  std::vector<uint32_t> order_;  // indexes into the ranges; a rank is an index into this
  std::vector<Address> open_;    // last addresses of the ranges around the current one
  std::vector<Address> bases_;   // by rank
  std::vector<uint32_t> ranks_;  // by index of the range; kDropped if it is rejected
  // Last addresses of the ranges accepted so far, as a max segment tree. The leaves are in order of
  // rank, an inner node holds the maximum of its children, the root is node 1. 0 means none or
  // for a range that ends at 0; queries never need the latter.
  std::vector<Address> ends_;
  size_t leaves_ = 0;
};

extern template class RangeNesting<uint32_t>;
extern template class RangeNesting<uint64_t>;

}  // namespace symforge_internal
