#include "common/published_function.h"

#include <algorithm>
#include <utility>

namespace symforge_internal {

namespace {

constexpr char kTooManyParts[] = "Inlined calls are cut into too many parts";

uint64_t end_of(const symb_line& line) { return uint64_t{line.address} + line.size; }

bool ends_at(const PublishedFunction::Call& call, uint64_t address) {
  return !call.ranges.empty() && call.ranges.back().address + call.ranges.back().size == address;
}

}  // namespace

void PublishedFunction::convert(const symb_func& function, std::span<const symb_line> lines,
                                std::span<const symb_inline> sites, uint64_t most_parts,
                                Allowance& parts) {
  lines_ = lines;
  sites_ = sites;
  next_site_ = 0;
  open_.clear();
  records_.clear();
  calls_.clear();
  nodes_.clear();
  root_ = {};
  index_.clear();

  Allowance own_parts(most_parts, kTooManyParts);
  // Step from each address where something starts or ends to the next one.
  uint64_t at = function.address;
  const uint64_t function_end = at + function.size;
  size_t line = 0;
  while (at < function_end) {
    while (!open_.empty() && open_.back().end <= at) open_.pop_back();
    open_sites(at);
    while (line < lines_.size() && end_of(lines_[line]) <= at) ++line;
    const bool has_line = line < lines_.size() && lines_[line].address <= at;

    uint64_t next = function_end;
    if (!open_.empty()) next = std::min(next, open_.back().end);
    if (next_site_ < sites_.size()) next = std::min<uint64_t>(next, sites_[next_site_].address);
    if (line < lines_.size()) {
      next = std::min(next, has_line ? end_of(lines_[line]) : lines_[line].address);
    }
    own_parts.spend(open_.size() + 1);
    parts.spend(open_.size() + 1);
    add_part(at, next, has_line ? static_cast<uint32_t>(line) : kNone);
    at = next;
  }
  order_calls();
}

// Opens the sites that start at `at` (or before the function), in the order of lookups.
void PublishedFunction::open_sites(uint64_t at) {
  for (; next_site_ < sites_.size() && sites_[next_site_].address <= at; ++next_site_) {
    const symb_inline& site = sites_[next_site_];
    const uint64_t end = uint64_t{site.address} + site.size;
    if (end <= at) continue;
    if (!open_.empty()) {
      const symb_inline& around = sites_[open_.back().site];
      const bool is_same = site.address == around.address && site.size == around.size;
      if (end > open_.back().end || (is_same && site.caller != around.caller + 1)) continue;
    }
    open_.push_back({end, static_cast<uint32_t>(next_site_)});
  }
}

// Adds the code from `begin` to `end`, throughout which the open sites are the same and `line` is
// the index of the function's line.
void PublishedFunction::add_part(uint64_t begin, uint64_t end, uint32_t line) {
  SourcePosition position = {0, 0};
  if (line != kNone) {
    position = {lines_[line].source_file_id, lines_[line].line};
  } else if (!open_.empty()) {
    // The caller has no line here: the call gets a file that is probably correct, and line 0.
    position.file =
        lines_.empty() ? sites_[open_.front().site].source_file_id : lines_.front().source_file_id;
  }
  uint32_t parent = kNone;
  for (Open& open : open_) {
    const uint32_t call = call_of(open, parent, position, begin, line);
    auto& ranges = calls_[call].ranges;
    if (ends_at(calls_[call], begin)) {
      ranges.back().size += end - begin;
    } else {
      ranges.push_back({begin, end - begin});
    }
    nodes_[call].last_line = line;
    parent = call;
    position = {sites_[open.site].source_file_id, sites_[open.site].line};
  }
  if (open_.empty() ? line != kNone : position != kNoPosition) {
    add_record(begin, end, position, !open_.empty());
  }
}

// Adjacent parts of inlined code at one position are merged. The function's own lines are not,
// because lookups return their start addresses.
void PublishedFunction::add_record(uint64_t begin, uint64_t end, SourcePosition position,
                                   bool is_inlined) {
  const auto size = static_cast<uint32_t>(end - begin);
  if (!records_.empty() && is_inlined && last_is_inlined_) {
    symb_line& last = records_.back();
    if (end_of(last) == begin && last.source_file_id == position.file &&
        last.line == position.line) {
      last.size += size;
      return;
    }
  }
  records_.push_back({static_cast<uint32_t>(begin), size, position.file, position.line});
  last_is_inlined_ = is_inlined;
}

// Returns the call with this callee and position inside `parent`. Two adjacent ranges become
// separate calls if a line of the function ends between them, because lookups return where the line
// starts.
uint32_t PublishedFunction::call_of(Open& open, uint32_t parent, SourcePosition position,
                                    uint64_t begin, uint32_t line) {
  const auto continues = [&](uint32_t call) {
    return parent != kNone || nodes_[call].last_line == line || !ends_at(calls_[call], begin);
  };
  if (open.call != kNone && open.parent == parent && open.position == position &&
      continues(open.call)) {
    return open.call;
  }
  const uint64_t name = sites_[open.site].name;
  const auto [found, is_new] =
      index_.try_emplace({parent, name, position}, static_cast<uint32_t>(calls_.size()));
  if (!is_new && !continues(found->second)) found->second = static_cast<uint32_t>(calls_.size());
  const uint32_t call = found->second;
  if (call == calls_.size()) {
    const uint32_t depth = parent == kNone ? 0 : calls_[parent].depth + 1;
    calls_.push_back({depth, position.line, position.file, name, {}});
    nodes_.emplace_back().parent = parent;
    Node& around = parent == kNone ? root_ : nodes_[parent];
    if (around.first_child == kNone) {
      around.first_child = call;
    } else {
      nodes_[around.last_child].next = call;
    }
    around.last_child = call;
  }
  open.call = call;
  open.parent = parent;
  open.position = position;
  return call;
}

// Moves each call directly before the calls inside it.
void PublishedFunction::order_calls() {
  ordered_calls_.clear();
  uint32_t call = root_.first_child;
  while (call != kNone) {
    ordered_calls_.push_back(std::move(calls_[call]));
    if (nodes_[call].first_child != kNone) {
      call = nodes_[call].first_child;
      continue;
    }
    while (call != kNone && nodes_[call].next == kNone) call = nodes_[call].parent;
    if (call != kNone) call = nodes_[call].next;
  }
}

}  // namespace symforge_internal
