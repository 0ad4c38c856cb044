#include "processor/inline_calls.h"

#include <algorithm>
#include <tuple>

#include "common/lookup_limits.h"

namespace google_breakpad {

namespace {

constexpr int32_t kNoFile = -1;

MemAddr saturating_end(MemAddr begin, MemAddr size) {
  return size > UINT64_MAX - begin ? UINT64_MAX : begin + size;
}

// The first line that starts after `address`; none before `from` does. Takes logarithmic time in
// its distance from `from`.
template <typename Lines>
auto FirstAfter(const Lines& lines, size_t from, MemAddr address) {
  size_t step = 1;
  size_t end = from;
  while (end < lines.size() && lines[end].address <= address) {
    from = end + 1;
    end += step;
    step *= 2;
  }
  const auto begin = lines.begin();
  return std::upper_bound(begin + static_cast<ptrdiff_t>(from),
                          begin + static_cast<ptrdiff_t>(std::min(end, lines.size())), address,
                          [](MemAddr value, const auto& line) { return value < line.address; });
}

}  // namespace

void InlineCallGatherer::Store(const symforge_internal::InlineCallFields& fields) {
  const auto call = static_cast<uint32_t>(calls_.size());
  calls_.push_back(
      {{static_cast<int32_t>(fields.call_file), static_cast<int32_t>(fields.call_line)},
       fields.origin});
  for (const auto& range : fields.ranges) {
    if (range.size == 0) continue;
    if (ranges_.size() == symforge_internal::kMaxInlineSites) return;
    ranges_.push_back(
        {range.address, saturating_end(range.address, range.size), fields.depth, call});
  }
}

void InlineCallGatherer::Clear() {
  calls_.clear();
  ranges_.clear();
}

void InlineCallGatherer::Convert(const BasicSourceLineResolver::Function& function,
                                 std::span<const Line> lines) {
  own_lines_.clear();
  sites_.clear();
  BuildTree(function);

  // Lines outside of the function are kept: files may contain them, and no lookup finds them.
  const Node& root = nodes_.front();
  for (const Line& line : lines) {
    if (line.address >= root.begin) break;
    own_lines_.push_back(line);
    own_lines_.back().size = std::min(line.size, root.begin - line.address);
  }
  size_t next_line = 0;
  VisitParts(root, lines, &next_line,
             [this](MemAddr begin, MemAddr end, const SourcePosition* position) {
               if (position != nullptr)
                 own_lines_.push_back({begin, end - begin, position->file, position->line});
             });
  for (const Line& line : lines) {
    if (line.address >= root.end) own_lines_.push_back(line);
  }

  for (size_t level = 1; level + 1 < level_starts_.size(); ++level) {
    next_line = 0;
    for (size_t i = level_starts_[level]; i < level_starts_[level + 1]; ++i) {
      AddSites(nodes_[i], static_cast<uint32_t>(level - 1), lines, &next_line);
    }
  }
  SortSites();
}

// Outer sites precede the sites inside them. No two have the same address and depth.
void InlineCallGatherer::SortSites() {
  if (level_starts_.size() <= 3) return;  // one level, which is in order
  keys_.clear();
  for (size_t i = 0; i < sites_.size(); ++i) {
    keys_.push_back({sites_[i].function_address, static_cast<uint32_t>(sites_[i].caller),
                     static_cast<uint32_t>(i)});
  }
  std::sort(keys_.begin(), keys_.end(), [](const SiteKey& a, const SiteKey& b) {
    return std::tie(a.address, a.depth) < std::tie(b.address, b.depth);
  });
  unsorted_sites_.swap(sites_);
  sites_.clear();
  for (const SiteKey& key : keys_) sites_.push_back(unsorted_sites_[key.index]);
}

// By depth and first address; equal ones keep their order. The ranges of one depth usually are in
// order.
void InlineCallGatherer::SortRanges() {
  depth_starts_.assign(1, 0);
  for (const Range& range : ranges_) {
    if (range.depth + 2 > depth_starts_.size()) depth_starts_.resize(range.depth + 2);
    ++depth_starts_[range.depth + 1];
  }
  for (size_t i = 1; i < depth_starts_.size(); ++i) depth_starts_[i] += depth_starts_[i - 1];
  unsorted_ranges_.swap(ranges_);
  ranges_.resize(unsorted_ranges_.size());
  for (const Range& range : unsorted_ranges_) ranges_[depth_starts_[range.depth]++] = range;
  const auto before = [](const Range& a, const Range& b) { return a.begin < b.begin; };
  auto first = ranges_.begin();
  for (size_t depth = 0; depth + 1 < depth_starts_.size(); ++depth) {
    const auto end = ranges_.begin() + static_cast<ptrdiff_t>(depth_starts_[depth]);
    if (!std::is_sorted(first, end, before)) std::stable_sort(first, end, before);
    first = end;
  }
}

void InlineCallGatherer::BuildTree(const BasicSourceLineResolver::Function& function) {
  SortRanges();
  nodes_.clear();
  nodes_.push_back({function.address, saturating_end(function.address, function.size), 0});
  level_starts_ = {0, 1};
  size_t first = 0;
  for (uint32_t depth = 0; first < ranges_.size() && ranges_[first].depth == depth; ++depth) {
    size_t end = first;
    while (end < ranges_.size() && ranges_[end].depth == depth) ++end;
    AddLevel(std::span(ranges_).subspan(first, end - first), level_starts_[depth],
             level_starts_[depth + 1]);
    level_starts_.push_back(nodes_.size());
    first = end;
  }
}

// Adds the ranges of one depth, ascending by first address, as children of the nodes of the level
// above.
void InlineCallGatherer::AddLevel(std::span<const Range> ranges, size_t first_parent,
                                  size_t end_parent) {
  size_t parent = first_parent;
  MemAddr last_end = 0;
  for (const Range& range : ranges) {
    const MemAddr begin = std::max(range.begin, last_end);
    while (parent < end_parent && nodes_[parent].end <= begin) ++parent;
    if (parent == end_parent) return;
    // Only at depth 0 may a range start before its parent, the function.
    const bool in_function = first_parent == 0;
    const MemAddr inside = in_function ? std::max(begin, nodes_[parent].begin) : begin;
    const MemAddr end = std::min(range.end, nodes_[parent].end);
    if (inside < nodes_[parent].begin || inside >= end) continue;
    last_end = end;
    if (nodes_[parent].child_count != 0 && nodes_.back().call == range.call &&
        nodes_.back().end == inside) {
      nodes_.back().end = end;
      continue;
    }
    if (nodes_[parent].child_count++ == 0) {
      nodes_[parent].first_child = static_cast<uint32_t>(nodes_.size());
    }
    nodes_.push_back({inside, end, range.call});
  }
}

// Calls `visit(begin, end, position)` for the parts of a node in ascending order: its children with
// the call positions, and the gaps between them with the positions of the lines. `position` is null
// where there is no line. No line before `*next_line` starts after the node's first address; it is
// set likewise for a following node of the same level.
template <typename Visit>
void InlineCallGatherer::VisitParts(const Node& node, std::span<const Line> lines,
                                    size_t* next_line, Visit visit) const {
  const auto visit_lines = [&](MemAddr begin, MemAddr end) {
    auto line = FirstAfter(lines, *next_line, begin);
    *next_line = static_cast<size_t>(line - lines.begin());
    if (line != lines.begin() && begin - (line - 1)->address < (line - 1)->size) --line;
    while (begin < end) {
      const bool has_line = line != lines.end() && line->address < end;
      const MemAddr line_begin = has_line ? std::max(line->address, begin) : end;
      if (begin < line_begin) visit(begin, line_begin, nullptr);
      if (!has_line) return;
      const MemAddr line_end = std::min(saturating_end(line->address, line->size), end);
      const SourcePosition position = {line->source_file_id, line->line};
      visit(line_begin, line_end, &position);
      begin = line_end;
      ++line;
    }
  };
  MemAddr at = node.begin;
  for (uint32_t i = 0; i < node.child_count; ++i) {
    const Node& child = nodes_[node.first_child + i];
    visit_lines(at, child.begin);
    visit(child.begin, child.end, &calls_[child.call].position);
    at = child.end;
  }
  visit_lines(at, node.end);
}

void InlineCallGatherer::AddSites(const Node& node, uint32_t depth, std::span<const Line> lines,
                                  size_t* next_line) {
  const size_t first = sites_.size();
  VisitParts(node, lines, next_line, [&](MemAddr begin, MemAddr end, const SourcePosition* known) {
    const SourcePosition position = known != nullptr ? *known : SourcePosition{kNoFile, 0};
    if (sites_.size() > first) {
      Site& last = sites_.back();
      if (SourcePosition{last.file_id, last.source_line} == position) {
        last.code_size += end - begin;
        return;
      }
    }
    Site& added = sites_.emplace_back();
    added.function_address = begin;
    added.code_size = end - begin;
    added.file_id = position.file;
    added.source_line = position.line;
    added.caller = depth;
    added.name = NameOfOrigin(static_cast<int>(calls_[node.call].origin));
  });
}

}  // namespace google_breakpad
