#include "processor/record_gatherers.h"

#include <utility>

#include "base/range_nesting.h"
#include "common/lookup_limits.h"

namespace google_breakpad {

using symforge_internal::Arena;
using symforge_internal::NestedRangeStack;
using symforge_internal::RangeNesting;

// Falls back to the range map. Also called for invalid ranges, which the map rejects; it logs a
// line for one that exceeds the largest address.
void LineGatherer::StoreOutOfOrder(const Line& line) {
  if (ordered_) {
    ordered_ = false;
    for (uint32_t i = 0; i < lines_.size(); ++i) {
      by_range_.StoreRange(lines_[i].address, lines_[i].size, i);
    }
  }
  if (by_range_.StoreRange(line.address, line.size, static_cast<uint32_t>(lines_.size()))) {
    lines_.push_back(line);
  }
}

const std::vector<LineGatherer::Line>& LineGatherer::Sorted() {
  if (ordered_) return lines_;
  std::vector<Line> sorted;
  sorted.reserve(lines_.size());
  for (const auto& [high, range] : by_range_.GetMap()) sorted.push_back(lines_[range.entry()]);
  lines_ = std::move(sorted);
  by_range_.Clear();
  ordered_ = true;
  last_high_ = lines_.empty() ? 0 : lines_.back().address + (lines_.back().size - 1);
  return lines_;
}

void LineGatherer::MoveTo(Arena& arena, BasicSourceLineResolver::Function* function) {
  Sorted();
  function->lines_ = arena.copy(lines_.data(), lines_.size());
  function->line_count_ = static_cast<uint32_t>(lines_.size());
  Clear();
}

void LineGatherer::Clear() {
  lines_.clear();
  if (!ordered_) by_range_.Clear();
  ordered_ = true;
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

void InlineGatherer::MoveTo(StringStorage& store, BasicSourceLineResolver::Function* function) {
  if (!ordered_) SortByNesting();
  final_.clear();
  for (size_t i = 0; i < sites_.size(); ++i) {
    final_.push_back(sites_[i].record);
    // A site often consists of several ranges with the same name.
    const bool same = i > 0 && sites_[i].name == sites_[i - 1].name;
    final_[i].name = same ? final_[i - 1].name : store.store(sites_[i].name);
  }
  function->inlines_ = store.arena().copy(final_.data(), final_.size());
  function->inline_count_ = static_cast<uint32_t>(final_.size());
  Clear();
}

void InlineGatherer::Clear() {
  sites_.clear();
  nesting_.clear();
  ordered_ = true;
}

}  // namespace google_breakpad
