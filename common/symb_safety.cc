#include "common/symb_safety.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "base/nested_range_stack.h"
#include "base/range_nesting.h"
#include "common/lookup_limits.h"
#include "common/symb.h"
#include "common/symb_block.h"

namespace symforge_internal {
namespace {

// Positions and maximal lengths of the strings of a block. A string is no longer than the run of
// non-NUL bytes in which it begins, so it suffices to find the long runs, which does not need to
// read most of the block.
class StringBounds {
 public:
  StringBounds(const char* block, uint64_t size) {
    const void* last_nul = memrchr(block, '\0', size);
    if (last_nul == nullptr) return;
    end_ = static_cast<uint64_t>(static_cast<const char*>(last_nul) - block) + 1;
    find_long_runs(block);
  }

  // Whether the string at `offset` ends inside the block and within kMaxStringBytes.
  bool accepts(uint64_t offset) const {
    return offset < end_ && (long_runs_.empty() || size_bound(offset) <= kMaxStringBytes);
  }
  bool accepts_or_none(uint64_t offset) const { return offset == 0 || accepts(offset); }

  // An upper bound of the size of the string at `offset`; exact for long ones.
  uint64_t size_bound(uint64_t offset) const {
    const auto ends_before = [](const Run& run, uint64_t at) { return run.end <= at; };
    const auto run = std::lower_bound(long_runs_.begin(), long_runs_.end(), offset, ends_before);
    const bool inside = run != long_runs_.end() && run->begin <= offset;
    return std::max<uint64_t>(inside ? run->end - offset : 0, kCommonStringBytes);
  }
  bool all_are_common() const { return long_runs_.empty(); }

 private:
  struct Run {
    uint64_t begin;
    uint64_t end;  // the NUL after it
  };

  // A run of this length contains a window without a NUL.
  void find_long_runs(const char* block) {
    uint64_t begin = 0;
    while (end_ - begin > kCommonStringBytes) {
      const char* window = block + begin;
      if (const void* nul = memrchr(window, '\0', kCommonStringBytes)) {
        begin += static_cast<uint64_t>(static_cast<const char*>(nul) - window) + 1;
        continue;
      }
      const uint64_t end = begin + strlen(window);
      long_runs_.push_back({begin, end});
      begin = end + 1;
    }
  }

  uint64_t end_ = 0;  // strings begin below this offset
  std::vector<Run> long_runs_;
};

class SafetyCheck {
 public:
  SafetyCheck(const char* block, uint64_t size)
      : block_(block), size_(size), strings_(block, size) {}

  bool run() {
    std::memcpy(&header_, block_, sizeof header_);
    return files() && functions() && publics() && frame_info() && rules();
  }

 private:
  template <typename T>
  T load(uint64_t at) const {
    return symb_load<T>(block_ + at);
  }
  template <typename Record>
  bool holds(uint64_t offset, uint64_t count) const {
    return count == 0 || symb_holds(size_, offset, count, sizeof(Record));
  }

  // Whether a table is inside the block and `record_is_safe` is true for each of its records.
  template <typename Record, typename Check>
  bool records(uint64_t offset, uint64_t count, Check record_is_safe) const {
    if (!holds<Record>(offset, count)) return false;
    for (uint64_t i = 0; i < count; ++i) {
      if (!record_is_safe(load<Record>(offset + i * sizeof(Record)))) return false;
    }
    return true;
  }

  // Adds the size of an array that belongs to one record. The sum must not exceed the block: arrays
  // shared by many records could make the check arbitrarily long.
  bool takes_array(uint64_t count, size_t record_size) {
    array_bytes_ += count * record_size;
    return array_bytes_ <= size_;
  }

  bool files();
  bool functions();
  template <typename Function>
  bool function_table();
  bool inlines(uint64_t offset, uint32_t count);
  bool is_in_order(uint64_t offset, uint32_t count) const;
  bool inline_paths(uint64_t offset, uint32_t count) const;
  bool publics() const;
  bool frame_info();
  bool frame_info_tree(uint64_t root);
  bool rules() const;
  bool rules_in_ranges() const;

  const char* block_;
  uint64_t size_;
  StringBounds strings_;
  symb_header_v1 header_{};
  uint64_t longest_path_ = 0;  // upper bound of the names of files
  uint64_t array_bytes_ = 0;
};

bool SafetyCheck::files() {
  longest_path_ = kCommonStringBytes;
  return records<symb_file>(header_.files, header_.file_count, [this](const symb_file& file) {
    if (!strings_.all_are_common()) {
      longest_path_ = std::max(longest_path_, strings_.size_bound(file.name));
    }
    return strings_.accepts(file.name);
  });
}

bool SafetyCheck::functions() {
  if (header_.functions == 0) return true;  // not used by lookups
  return symb_has_inlines(header_.md.version) ? function_table<symb_func_inline>()
                                              : function_table<symb_func>();
}

template <typename Function>
bool SafetyCheck::function_table() {
  return records<Function>(header_.functions, header_.function_count,
                           [this](const Function& function) {
                             if (!strings_.accepts(function.name) ||
                                 !holds<symb_line>(function.lines, function.line_count) ||
                                 !takes_array(function.line_count, sizeof(symb_line))) {
                               return false;
                             }
                             if constexpr (sizeof(Function) == sizeof(symb_func_inline)) {
                               return inlines(function.inlines, function.inline_count);
                             }
                             return true;
                           });
}

bool SafetyCheck::inlines(uint64_t offset, uint32_t count) {
  if (count == 0) return true;
  if (count > kMaxInlineSites || !takes_array(count, sizeof(symb_inline))) return false;
  const auto name_is_safe = [this](const symb_inline& site) { return strings_.accepts(site.name); };
  if (!records<symb_inline>(offset, count, name_is_safe)) return false;
  // So few sites cannot be nested too deep.
  const bool few = strings_.all_are_common() &&
                   count <= kMaxInlinePathBytes / (kCommonStringBytes + longest_path_);
  return few || inline_paths(offset, count);
}

// Whether the sites are in pre-order, so that lookups need not sort them.
bool SafetyCheck::is_in_order(uint64_t offset, uint32_t count) const {
  NestedRangeStack nesting;
  for (uint32_t i = 0; i < count; ++i) {
    const auto site = load<symb_inline>(offset + i * sizeof(symb_inline));
    if (nesting.add(site.address, site.size) == NestedRangeStack::Result::kOutOfOrder) return false;
  }
  return true;
}

// Whether the inline frames at each address are within the limit.
bool SafetyCheck::inline_paths(uint64_t offset, uint32_t count) const {
  if (count > kMaxUnorderedInlineSites && !is_in_order(offset, count)) return false;
  std::vector<RangeNesting<uint64_t>::Range> ranges;
  std::vector<uint64_t> bytes;  // of the frame of each range
  for (uint32_t i = 0; i < count; ++i) {
    const auto site = load<symb_inline>(offset + i * sizeof(symb_inline));
    if (site.size == 0) continue;
    ranges.push_back({site.address, uint64_t{site.address} + site.size - 1});
    bytes.push_back(strings_.size_bound(site.name) + longest_path_);
  }
  RangeNesting<uint64_t> nesting;
  std::vector<std::pair<uint64_t, uint64_t>> around;  // last address, bytes of the frames so far
  for (const uint32_t i : nesting.nest(ranges)) {
    while (!around.empty() && around.back().first < ranges[i].base) around.pop_back();
    const uint64_t path = (around.empty() ? 0 : around.back().second) + bytes[i];
    if (path > kMaxInlinePathBytes) return false;
    around.emplace_back(ranges[i].high, path);
  }
  return true;
}

bool SafetyCheck::publics() const {
  if (!symb_has_inlines(header_.md.version)) return true;  // not used by lookups
  return records<symb_public>(
      header_.public_functions, header_.public_function_count,
      [this](const symb_public& symbol) { return strings_.accepts(symbol.name); });
}

// Checks the roots of the two types that lookups search.
bool SafetyCheck::frame_info() {
  constexpr uint64_t kFpo = 0, kFrameData = 4;
  if (header_.windows_frame_info == 0) return true;
  for (const uint64_t type : {kFpo, kFrameData}) {
    if (type >= header_.windows_frame_info_count) continue;
    if (!holds<symb_nested_window_frame_info>(header_.windows_frame_info, type + 1)) return false;
    if (!frame_info_tree(header_.windows_frame_info +
                         type * sizeof(symb_nested_window_frame_info))) {
      return false;
    }
  }
  return true;
}

// Not recursive. The sum of all arrays ends a walk into a cycle.
bool SafetyCheck::frame_info_tree(uint64_t root) {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  struct Array {
    uint64_t next;
    uint64_t end;
  };
  std::vector<Array> path;
  const auto enter = [&](const symb_nested_window_frame_info& owner) {
    if (owner.map == 0 || owner.map_count == 0) return true;
    path.push_back({owner.map, owner.map + owner.map_count * kRecord});
    return path.size() <= kMaxFrameInfoDepth &&
           holds<symb_nested_window_frame_info>(owner.map, owner.map_count) &&
           takes_array(owner.map_count, kRecord);
  };
  if (!enter(load<symb_nested_window_frame_info>(root))) return false;
  while (!path.empty()) {
    Array& array = path.back();
    if (array.next == array.end) {
      path.pop_back();
      continue;
    }
    const auto range = load<symb_nested_window_frame_info>(array.next);
    array.next += kRecord;
    if (!strings_.accepts_or_none(range.wfi.program_string) || !enter(range)) return false;
  }
  return true;
}

bool SafetyCheck::rules() const {
  bool ordered = true;
  uint64_t last = 0;
  const auto in_order = [&](uint64_t address, uint64_t end) {
    ordered = ordered && address >= last;
    last = end;
  };
  const bool initial_rules_are_safe = records<symb_cfi_rule>(
      header_.cfi_initial_rules, header_.cfi_initial_rule_count, [&](const symb_cfi_rule& rule) {
        in_order(rule.base, uint64_t{rule.base} + rule.size);
        return strings_.accepts(rule.rule);
      });
  last = 0;
  return initial_rules_are_safe &&
         records<symb_cfi_delta_rule>(header_.cfi_delta_rules, header_.cfi_delta_rule_count,
                                      [&](const symb_cfi_delta_rule& rule) {
                                        in_order(rule.address, rule.address);
                                        return strings_.accepts(rule.rule);
                                      }) &&
         (!ordered || rules_in_ranges());
}

// Whether the rules that apply in each range are within the limit of one lookup, if both tables are
// in order; otherwise the lookup enforces it. Texts are only read where there are many.
bool SafetyCheck::rules_in_ranges() const {
  constexpr uint64_t kFew = kMaxRuleCost / (kRuleTextCost + kRuleCost + kCommonStringBytes);
  const auto delta_at = [this](uint64_t i) {
    return load<symb_cfi_delta_rule>(header_.cfi_delta_rules + i * sizeof(symb_cfi_delta_rule));
  };
  uint64_t end = 0;
  for (uint64_t i = 0; i < header_.cfi_initial_rule_count; ++i) {
    const auto range = load<symb_cfi_rule>(header_.cfi_initial_rules + i * sizeof(symb_cfi_rule));
    const uint64_t address_end = uint64_t{range.base} + range.size;
    uint64_t begin = end;
    while (begin < header_.cfi_delta_rule_count && delta_at(begin).address < range.base) ++begin;
    end = begin;
    while (end < header_.cfi_delta_rule_count && delta_at(end).address < address_end) ++end;
    if (strings_.all_are_common() && end - begin < kFew) continue;
    uint64_t cost = strlen(block_ + range.rule);
    for (uint64_t at = begin; at < end && cost <= kMaxRuleCost; ++at) {
      cost += kRuleTextCost + kRuleCost + strlen(block_ + delta_at(at).rule);
    }
    if (cost > kMaxRuleCost) return false;
  }
  return true;
}

}  // namespace

bool symb_check_safety(const char* block, uint64_t size) {
  return size >= sizeof(symb_header_v1) && symb_has_magic(block, size) &&
         SafetyCheck(block, size).run();
}

}  // namespace symforge_internal
