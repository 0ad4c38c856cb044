#include "processor/record_gatherers.h"

#include <algorithm>
#include <utility>

#include "base/range_nesting.h"
#include "common/lookup_limits.h"

namespace google_breakpad {

using symforge_internal::NestedRangeStack;
using symforge_internal::RangeNesting;

namespace {

// Lines of a function that are kept until it ends, overlapping ones too. It bounds their memory.
constexpr size_t kMostUnsorted = size_t{1} << 16;

bool starts_before(const LineGatherer::Line& a, const LineGatherer::Line& b) {
  return a.address < b.address;
}

}  // namespace

// Also called for invalid ranges, which the range map rejects; it logs a line for one that exceeds
// the largest address. Valid lines are sorted when the function ends, and only if some overlap
// does the map decide which are kept.
void LineGatherer::StoreOutOfOrder(const Line& line, bool valid) {
  if (state_ != State::kRanges && valid && lines_.size() < kMostUnsorted) {
    state_ = State::kUnsorted;
    lines_.push_back(line);
    return;
  }
  UseRanges();
  if (by_range_.StoreRange(line.address, line.size, static_cast<uint32_t>(lines_.size()))) {
    lines_.push_back(line);
  }
}

// Stores all lines in the range map, and drops those that it rejects.
void LineGatherer::UseRanges() {
  if (state_ == State::kRanges) return;
  state_ = State::kRanges;
  uint32_t kept = 0;
  for (const Line& line : lines_) {
    if (by_range_.StoreRange(line.address, line.size, kept)) lines_[kept++] = line;
  }
  lines_.resize(kept);
}

// Returns false and changes nothing if some lines overlap.
bool LineGatherer::SortDisjoint() {
  sorted_ = lines_;
  std::sort(sorted_.begin(), sorted_.end(), starts_before);
  for (size_t i = 1; i < sorted_.size(); ++i) {
    if (sorted_[i].address - sorted_[i - 1].address < sorted_[i - 1].size) return false;
  }
  lines_.swap(sorted_);
  return true;
}

const std::vector<LineGatherer::Line>& LineGatherer::Sorted() {
  if (state_ == State::kUnsorted && !SortDisjoint()) UseRanges();
  if (state_ == State::kRanges) {
    by_range_.Clear();
    // The lines are disjoint, so no two addresses are equal.
    std::sort(lines_.begin(), lines_.end(), starts_before);
  }
  state_ = State::kOrdered;
  last_high_ = lines_.empty() ? 0 : lines_.back().address + (lines_.back().size - 1);
  return lines_;
}

void LineGatherer::Clear() {
  lines_.clear();
  if (state_ == State::kRanges) by_range_.Clear();
  state_ = State::kOrdered;
}

void InlineGatherer::Store(const InlineFunction& site, std::string_view name) {
  const Site new_site{site, name};
  if (site.code_size == 0 || new_site.high() < site.function_address) return;
  if (sites_.size() == symforge_internal::kMaxInlineSites) return;
  if (ordered_) {
    const NestedRangeStack::Result result = nesting_.add(site.function_address, site.code_size);
    if (result == NestedRangeStack::Result::kIgnored) return;
    ordered_ = result == NestedRangeStack::Result::kNested;
  }
  sites_.push_back(new_site);
}

// Keeps the sites that a ContainedRangeMap would keep, in pre-order.
void InlineGatherer::SortByNesting() {
  std::vector<RangeNesting<MemAddr>::Range> ranges;
  ranges.reserve(sites_.size());
  for (const Site& site : sites_) ranges.push_back({site.record.function_address, site.high()});
  RangeNesting<MemAddr> nesting;
  std::vector<Site> sorted;
  for (const uint32_t position : nesting.nest(ranges)) sorted.push_back(sites_[position]);
  sites_ = std::move(sorted);
}

const std::vector<InlineGatherer::InlineFunction>& InlineGatherer::Sorted() {
  if (!ordered_) SortByNesting();
  final_.clear();
  for (const Site& site : sites_) final_.push_back(site.record);
  return final_;
}

void InlineGatherer::StoreNames(StringStorage& store, FunctionRecords* records) const {
  const char* name = nullptr;
  for (size_t i = 0; i < sites_.size(); ++i) {
    // A site often consists of several ranges with the same name.
    if (i == 0 || sites_[i].name != sites_[i - 1].name) name = store.store(sites_[i].name);
    records->set_site_name(i, name);
  }
}

void InlineGatherer::Clear() {
  sites_.clear();
  nesting_.clear();
  ordered_ = true;
}

}  // namespace google_breakpad
