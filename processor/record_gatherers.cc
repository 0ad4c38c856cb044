#include "processor/record_gatherers.h"

#include <utility>

namespace google_breakpad {

using symforge_internal::Arena;
using symforge_internal::NestedRangeStack;

void LineGatherer::Store(const Line& line) {
  const MemAddr high = line.address + line.size - 1;
  const bool valid = line.size > 0 && high >= line.address;
  if (!ordered_ || !valid) {
    StoreOutOfOrder(line);
    return;
  }
  // Compared by last addresses: the first address behind a line may lie behind the largest one.
  if (lines_.empty() || line.address > lines_.back().address + (lines_.back().size - 1)) {
    lines_.push_back(line);
  } else if (high < lines_.back().address) {
    StoreOutOfOrder(line);
  }
  // What is left overlaps the last line and is dropped.
}

// Leaves the fast way. Also asked about invalid ranges, which the container refuses, one that runs
// past the largest address with a line in the log.
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

void LineGatherer::MoveTo(Arena& arena, BasicSourceLineResolver::Function* function) {
  if (!ordered_) {
    std::vector<Line> sorted;
    sorted.reserve(lines_.size());
    for (const auto& [high, range] : by_range_.GetMap()) sorted.push_back(lines_[range.entry()]);
    lines_ = std::move(sorted);
  }
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
  if (ordered_) {
    switch (nesting_.add(site.function_address, site.code_size)) {
      case NestedRangeStack::Place::kInside:
        sites_.push_back(new_site);
        return;
      case NestedRangeStack::Place::kNothing:
        return;
      case NestedRangeStack::Place::kOutOfOrder:
        break;
    }
  }
  StoreOutOfOrder(new_site);
}

void InlineGatherer::StoreOutOfOrder(const Site& site) {
  if (ordered_) {
    ordered_ = false;
    for (uint32_t i = 0; i < sites_.size(); ++i) {
      by_range_.StoreRange(sites_[i].record.function_address, sites_[i].record.code_size, i);
    }
  }
  if (by_range_.StoreRange(site.record.function_address, site.record.code_size,
                           static_cast<uint32_t>(sites_.size()))) {
    sites_.push_back(site);
  }
}

void InlineGatherer::SortByNesting() {
  using Range = ContainedRange<MemAddr, uint32_t>;
  using Iterator = Range::AddressToRangeMap::const_iterator;
  std::vector<Site> sorted;
  sorted.reserve(sites_.size());
  // What is left to visit at each level of the way down; nesting may be deep.
  std::vector<std::pair<Iterator, Iterator>> levels;
  if (by_range_.Map() != nullptr) {
    levels.emplace_back(by_range_.Map()->begin(), by_range_.Map()->end());
  }
  while (!levels.empty()) {
    auto& [next, end] = levels.back();
    if (next == end) {
      levels.pop_back();
      continue;
    }
    const Range* range = next.value();
    ++next;
    sorted.push_back(sites_[range->Entry()]);
    if (range->Map() != nullptr) levels.emplace_back(range->Map()->begin(), range->Map()->end());
  }
  sites_ = std::move(sorted);
}

void InlineGatherer::MoveTo(StringStorage& store, BasicSourceLineResolver::Function* function) {
  if (!ordered_) SortByNesting();
  final_.clear();
  for (size_t i = 0; i < sites_.size(); ++i) {
    final_.push_back(sites_[i].record);
    // A site is often cut into several ranges, all with its name.
    const bool same = i > 0 && sites_[i].name == sites_[i - 1].name;
    final_[i].name = same ? final_[i - 1].name : store.keep(sites_[i].name);
  }
  function->inlines_ = store.arena().copy(final_.data(), final_.size());
  function->inline_count_ = static_cast<uint32_t>(final_.size());
  Clear();
}

void InlineGatherer::Clear() {
  sites_.clear();
  nesting_.clear();
  if (!ordered_) by_range_.Clear();
  ordered_ = true;
}

}  // namespace google_breakpad
