#include "symforge/src/emit/nested_range_set.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace symforge_internal {

namespace {

constexpr uint32_t kRepeated = 0xFFFFFFFF;

}  // namespace

const std::vector<uint32_t>& NestedRangeSet::nest(const std::vector<AddressRange>& ranges) {
  sortAndDropRepeated(ranges);
  if (someCross(ranges)) dropRefused(ranges);
  return m_order;
}

void NestedRangeSet::sortAndDropRepeated(const std::vector<AddressRange>& ranges) {
  m_order.resize(ranges.size());
  std::iota(m_order.begin(), m_order.end(), 0);
  std::sort(m_order.begin(), m_order.end(), [&ranges](uint32_t a, uint32_t b) {
    const AddressRange& first = ranges[a];
    const AddressRange& second = ranges[b];
    if (first.base != second.base) return first.base < second.base;
    if (first.high != second.high) return first.high > second.high;
    return a < b;
  });
  // A repetition meets the fate of the first: equal to it when that was kept, cutting when not.
  const auto same = [&ranges](uint32_t a, uint32_t b) {
    return ranges[a].base == ranges[b].base && ranges[a].high == ranges[b].high;
  };
  m_order.erase(std::unique(m_order.begin(), m_order.end(), same), m_order.end());
}

bool NestedRangeSet::someCross(const std::vector<AddressRange>& ranges) {
  m_open.clear();
  for (const uint32_t position : m_order) {
    const AddressRange& range = ranges[position];
    while (!m_open.empty() && m_open.back() < range.base) m_open.pop_back();
    if (!m_open.empty() && m_open.back() < range.high) return true;
    m_open.push_back(range.high);
  }
  return false;
}

// Takes the ranges in the order in which they came.
void NestedRangeSet::dropRefused(const std::vector<AddressRange>& ranges) {
  m_bases.resize(m_order.size());
  m_places.assign(ranges.size(), kRepeated);
  for (size_t place = 0; place < m_order.size(); ++place) {
    m_bases[place] = ranges[m_order[place]].base;
    m_places[m_order[place]] = static_cast<uint32_t>(place);
  }
  m_leaves = std::bit_ceil(m_order.size() + 1);
  m_ends.assign(2 * m_leaves, 0);
  for (size_t position = 0; position < ranges.size(); ++position)
    if (m_places[position] != kRepeated && !crossesKept(ranges[position]))
      keep(m_places[position], ranges[position].high);

  size_t kept = 0;
  for (size_t place = 0; place < m_order.size(); ++place)
    if (m_ends[m_leaves + place] != 0) m_order[kept++] = m_order[place];
  m_order.resize(kept);
}

// A kept range cuts this one at its end when it begins after this one's base, and at its base when
// it ends inside. Of the kept ranges around the base, which nest, the last in order is the
// innermost and ends first.
bool NestedRangeSet::crossesKept(const AddressRange& range) const {
  const auto placeOf = [this](auto found) { return static_cast<size_t>(found - m_bases.begin()); };
  const auto same = std::lower_bound(m_bases.begin(), m_bases.end(), range.base);
  const auto above = std::upper_bound(same, m_bases.end(), range.base);
  const auto after = std::upper_bound(above, m_bases.end(), range.high);
  const uint64_t end = uint64_t{range.high} + 1;
  if (highestIn(placeOf(above), placeOf(after)) > end) return true;
  const uint64_t around = lastReaching(placeOf(same), range.base);
  return around != 0 && around < end;
}

void NestedRangeSet::keep(size_t place, uint32_t high) {
  const uint64_t end = uint64_t{high} + 1;
  for (size_t node = m_leaves + place; node != 0 && m_ends[node] < end; node /= 2)
    m_ends[node] = end;
}

// The largest end among the places from `first` to in front of `last`.
uint64_t NestedRangeSet::highestIn(size_t first, size_t last) const {
  uint64_t highest = 0;
  for (first += m_leaves, last += m_leaves; first < last; first /= 2, last /= 2) {
    if (first % 2 != 0) highest = std::max(highest, m_ends[first++]);
    if (last % 2 != 0) highest = std::max(highest, m_ends[--last]);
  }
  return highest;
}

// The end of the last range in front of `place` that reaches `address`; 0 when there is none.
uint64_t NestedRangeSet::lastReaching(size_t place, uint32_t address) const {
  for (size_t node = m_leaves + place; node > 1; node /= 2) {
    if (node % 2 == 0 || m_ends[node - 1] <= address) continue;
    size_t inside = node - 1;
    while (inside < m_leaves) inside = 2 * inside + (m_ends[2 * inside + 1] > address ? 1 : 0);
    return m_ends[inside];
  }
  return 0;
}

}  // namespace symforge_internal
