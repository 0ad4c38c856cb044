#include "base/range_nesting.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace symforge_internal {

namespace {

constexpr uint32_t kDropped = 0xFFFFFFFF;

}  // namespace

template <typename Address>
const std::vector<uint32_t>& RangeNesting<Address>::nest(const std::vector<Range>& ranges) {
  sort_and_drop_repeated(ranges);
  if (some_cross(ranges)) drop_refused(ranges);
  return order_;
}

template <typename Address>
void RangeNesting<Address>::sort_and_drop_repeated(const std::vector<Range>& ranges) {
  order_.resize(ranges.size());
  std::iota(order_.begin(), order_.end(), 0);
  const auto before = [&ranges](uint32_t a, uint32_t b) {
    const Range& first = ranges[a];
    const Range& second = ranges[b];
    if (first.base != second.base) return first.base < second.base;
    if (first.high != second.high) return first.high > second.high;
    return a < b;
  };
  if (!std::is_sorted(order_.begin(), order_.end(), before)) {
    std::sort(order_.begin(), order_.end(), before);
  }
  // A repeated range is rejected like its first occurrence or because that was accepted.
  const auto same = [&ranges](uint32_t a, uint32_t b) {
    return ranges[a].base == ranges[b].base && ranges[a].high == ranges[b].high;
  };
  order_.erase(std::unique(order_.begin(), order_.end(), same), order_.end());
}

template <typename Address>
bool RangeNesting<Address>::some_cross(const std::vector<Range>& ranges) {
  open_.clear();
  for (const uint32_t position : order_) {
    const Range& range = ranges[position];
    while (!open_.empty() && open_.back() < range.base) open_.pop_back();
    if (!open_.empty() && open_.back() < range.high) return true;
    open_.push_back(range.high);
  }
  return false;
}

// Processes the ranges in input order.
template <typename Address>
void RangeNesting<Address>::drop_refused(const std::vector<Range>& ranges) {
  bases_.resize(order_.size());
  ranks_.assign(ranges.size(), kDropped);
  for (size_t rank = 0; rank < order_.size(); ++rank) {
    bases_[rank] = ranges[order_[rank]].base;
    ranks_[order_[rank]] = static_cast<uint32_t>(rank);
  }
  leaves_ = std::bit_ceil(order_.size() + 1);
  ends_.assign(2 * leaves_, 0);
  for (size_t position = 0; position < ranges.size(); ++position) {
    if (ranks_[position] == kDropped) continue;
    if (crosses_kept(ranges[position])) {
      ranks_[position] = kDropped;
    } else {
      keep(ranks_[position], ranges[position].high);
    }
  }
  std::erase_if(order_, [this](uint32_t position) { return ranks_[position] == kDropped; });
}

// An accepted range crosses the end of this one if it starts after this one's base and ends after
// this one's end. It crosses the base if it starts before it and ends inside. The accepted ranges
// around the base nest, so only the innermost, which is last in order, has to be checked for that.
template <typename Address>
bool RangeNesting<Address>::crosses_kept(const Range& range) const {
  const auto rank_of = [this](auto found) { return static_cast<size_t>(found - bases_.begin()); };
  const auto same = std::lower_bound(bases_.begin(), bases_.end(), range.base);
  const auto above = std::upper_bound(same, bases_.end(), range.base);
  const auto after = std::upper_bound(above, bases_.end(), range.high);
  if (highest_in(rank_of(above), rank_of(after)) > range.high) return true;
  const End around = last_reaching(rank_of(same), range.base);
  return around.found && around.high < range.high;
}

template <typename Address>
void RangeNesting<Address>::keep(size_t rank, Address high) {
  for (size_t node = leaves_ + rank; node != 0 && ends_[node] < high; node /= 2) {
    ends_[node] = high;
  }
}

// The largest last address among the ranks [first, last).
template <typename Address>
Address RangeNesting<Address>::highest_in(size_t first, size_t last) const {
  Address highest = 0;
  for (first += leaves_, last += leaves_; first < last; first /= 2, last /= 2) {
    if (first % 2 != 0) highest = std::max(highest, ends_[first++]);
    if (last % 2 != 0) highest = std::max(highest, ends_[--last]);
  }
  return highest;
}

// The last accepted range before `rank` that reaches `address`. Ranges of lower ranks start below
// `address`, so one that ends at 0 never reaches it.
template <typename Address>
auto RangeNesting<Address>::last_reaching(size_t rank, Address address) const -> End {
  for (size_t node = leaves_ + rank; node > 1; node /= 2) {
    if (node % 2 == 0 || address == 0 || ends_[node - 1] < address) continue;
    size_t inside = node - 1;
    while (inside < leaves_) inside = 2 * inside + (ends_[2 * inside + 1] >= address ? 1 : 0);
    return {ends_[inside], true};
  }
  return {0, false};
}

template class RangeNesting<uint32_t>;
template class RangeNesting<uint64_t>;

}  // namespace symforge_internal
