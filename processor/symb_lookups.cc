// The lookups in a SYMB block: binary searches in its tables, which may be in a read-only mapping.
// Nothing is parsed or cached. No lookup reads outside the block, whatever it contains: tables and
// strings are clipped to the block. In a block that has passed symb_check_safety(), the limits of
// common/lookup_limits.h bound the cost of a lookup.
//
// The sequence of records that a search visits is fixed, because it determines the result in an
// unsorted table, on which hosts may rely. Prefetching is not restricted.
//
// Addresses: functions, lines, initial rules and the fallback of the frame info search compare the
// low 32 bits of the address, everything else the whole 64-bit address.

#include <algorithm>
#include <cstring>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string_view>
#include <vector>

#include "base/nested_range_stack.h"
#include "base/range_nesting.h"
#include "common/lookup_limits.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "google_breakpad/processor/code_module.h"
#include "google_breakpad/processor/stack_frame.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/rule_set_applier.h"

namespace google_breakpad {

using symforge_internal::kMaxFrameInfoDepth;
using symforge_internal::kMaxInlineSites;
using symforge_internal::kMaxStringBytes;
using symforge_internal::NestedRangeStack;
using symforge_internal::RangeNesting;
using symforge_internal::symb_has_inlines;
using symforge_internal::symb_load;

namespace {

uint64_t relative_address(const StackFrame& frame) {
  return frame.instruction - frame.module->base_address();
}

// Prefetches all records that a search over [lo, hi) visits on its path to `guess`. Must be
// inlined: g++ considers a function that only prefetches to have no effect and removes the call.
template <size_t kStride>
[[gnu::always_inline]] inline void prefetch_path(const char* table, uint64_t lo, uint64_t hi,
                                                 uint64_t guess) {
  __builtin_prefetch(table + (guess + 1) * kStride - 1);  // the visits load the start of the record
  while (lo < hi) {
    const uint64_t mid = (lo + hi) / 2;
    __builtin_prefetch(table + mid * kStride);
    if (guess == mid) return;
    const bool below = guess < mid;  // branchless: the branch would be unpredictable
    hi = below ? mid : hi;
    lo = below ? lo : mid + 1;
  }
}

// Finds the record whose range contains `address`; null if there is none. The range is a 32-bit
// first address at `kStart`, followed by the size.
//
// The first steps of a search in a large table hit the cache, because all searches share them. Each
// later step would wait for memory. So the position of the result is then estimated by
// interpolation, and the records on the path to it are prefetched together. Sizes differ, so the
// estimate is repeated closer to the result. A wrong estimate costs little and does not affect the
// result.
template <size_t kStride, size_t kStart>
const char* find_range(const char* table, uint64_t count, uint32_t address) {
  constexpr uint64_t kFarPart = 4096;
  constexpr uint64_t kNearPart = 128;
  uint64_t guess_at = count > kFarPart ? kFarPart : 0;  // part length for the next guess
  uint32_t start_below = 0;
  uint32_t start_above = UINT32_MAX;
  uint64_t lo = 0;
  uint64_t hi = count;
  while (lo < hi) {
    if (hi - lo <= guess_at) {
      guess_at = guess_at == kFarPart ? kNearPart : 0;
      const uint64_t span = uint64_t{start_above} - start_below + 1;
      prefetch_path<kStride>(table, lo, hi, lo + (hi - lo) * (address - start_below) / span);
    }
    const uint64_t mid = (lo + hi) / 2;
    const char* record = table + mid * kStride;
    const auto start = symb_load<uint32_t>(record + kStart);
    const auto size = symb_load<uint32_t>(record + kStart + sizeof(uint32_t));
    if (address < start) {
      hi = mid;
      start_above = start;
    } else if (address < start + size) {
      return record;
    } else {
      lo = mid + 1;
      start_below = start;
    }
  }
  return nullptr;
}

// Returns the index of the first record whose address, at `kAddress`, is above `value`. If the
// search meets a record at `value`, it ends and returns the index of that record plus `if_equal`.
template <size_t kStride, size_t kAddress>
uint64_t bound(const char* table, uint64_t count, uint64_t value, uint64_t if_equal) {
  uint64_t lo = 0;
  uint64_t hi = count;
  while (lo < hi) {
    const uint64_t mid = lo + (hi - lo) / 2;
    const uint64_t address = symb_load<uint32_t>(table + mid * kStride + kAddress);
    if (address == value) return mid + if_equal;
    if (address < value) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo;
}

// Returns the index after the last record whose address is at or below `value`.
template <size_t kStride, size_t kAddress>
uint64_t upper_bound(const char* table, uint64_t count, uint64_t value) {
  return bound<kStride, kAddress>(table, count, value, 1);
}

// Returns the index of the first record whose address is at or above `value`.
template <size_t kStride, size_t kAddress>
uint64_t lower_bound(const char* table, uint64_t count, uint64_t value) {
  return bound<kStride, kAddress>(table, count, value, 0);
}

// Records inside the block.
struct Table {
  const char* records;
  uint64_t count;
};

// The tables of a block, located anew for each lookup, because the block is the only state.
class Tables {
 public:
  Tables(const char* base, uint64_t size) : base_(base), size_(size) {}

  // A field of the header, by offset.
  template <typename T = uint64_t>
  T header(size_t field) const {
    return symb_load<T>(base_ + field);
  }
  uint32_t version() const { return header<uint32_t>(offsetof(symb_header_metadata, version)); }

  // The part of a table inside the block.
  template <size_t kStride>
  Table table(uint64_t offset, uint64_t count) const {
    if (offset > size_) return {base_, 0};
    return {base_ + offset, std::min(count, (size_ - offset) / kStride)};
  }
  // A table of the header, by the offset of its field.
  template <size_t kStride>
  Table header_table(size_t field) const {
    return table<kStride>(header(field), header(field + sizeof(uint64_t)));
  }
  // Clipped to the block and to the maximal length of a string.
  std::string_view string(uint64_t offset) const {
    if (offset >= size_) return {};
    return {base_ + offset, strnlen(base_ + offset, std::min(size_ - offset, kMaxStringBytes))};
  }
  void prefetch(uint64_t offset) const { __builtin_prefetch(base_ + offset); }

  bool has_functions() const {
    return header(offsetof(symb_header_v1, function_count)) != 0 &&
           header(offsetof(symb_header_v1, functions)) != 0;
  }

  // `kStride` is the size of a function record, or the size that the search assumes.
  template <size_t kStride>
  const char* function(uint64_t address) const {
    const Table functions = header_table<kStride>(offsetof(symb_header_v1, functions));
    return find_range<kStride, offsetof(symb_func, address)>(functions.records, functions.count,
                                                             static_cast<uint32_t>(address));
  }

  // The offset of the file's name; nullopt if no file has that number.
  std::optional<uint64_t> file_name(int32_t source_file_id) const {
    const auto [files, count] = header_table<sizeof(symb_file)>(offsetof(symb_header_v1, files));
    uint64_t lo = 0;
    uint64_t hi = count;
    while (lo < hi) {
      const uint64_t mid = (lo + hi) / 2;
      const auto file = symb_load<symb_file>(files + mid * sizeof(symb_file));
      if (source_file_id == file.index) return file.name;
      if (source_file_id < file.index) {
        hi = mid;
      } else {
        lo = mid + 1;
      }
    }
    return std::nullopt;
  }

  void set_function(const symb_func& function, StackFrame* frame) const {
    frame->function_base = function.address + frame->module->base_address();
    frame->function_name = string(function.name);
  }
  void set_line(const symb_func& function, uint64_t address, StackFrame* frame) const;
  void append_inlines(const Table& sites, uint64_t address, StackFrame* frame) const;
  void set_public(uint64_t address, uint64_t nearest_function, StackFrame* frame) const;
  uint64_t nearest_function_inline(uint64_t address) const;
  const char* find_frame_info(uint64_t type, uint64_t address) const;

 private:
  void append_inline(const symb_inline& site, StackFrame* frame) const;
  const char* SymbNestedWFIFind(uint64_t address, const char* nested_wfi) const;

  const char* base_;
  uint64_t size_;
};

void Tables::set_line(const symb_func& function, uint64_t address, StackFrame* frame) const {
  const Table lines = table<sizeof(symb_line)>(function.lines, function.line_count);
  const char* record = find_range<sizeof(symb_line), offsetof(symb_line, address)>(
      lines.records, lines.count, static_cast<uint32_t>(address));
  if (record == nullptr) return;
  const auto line = symb_load<symb_line>(record);
  if (const auto name = file_name(line.source_file_id)) frame->source_file_name = string(*name);
  frame->source_line = line.line;
  frame->source_line_base = line.address + frame->module->base_address();
}

void Tables::append_inline(const symb_inline& site, StackFrame* frame) const {
  StackFrame::Inline& inlined = frame->inlines.emplace_back();
  inlined.name = string(site.name);
  inlined.source_line = site.line;
  if (const auto file = file_name(site.source_file_id)) inlined.source_file_name = string(*file);
}

// The sites around an address, the outermost first, for tables whose sites are not in pre-order:
// the result is that of a tree of all sites.
std::vector<const char*> inline_stack_by_nesting(const Table& sites, uint64_t address) {
  std::vector<RangeNesting<uint64_t>::Range> ranges;
  std::vector<const char*> stored;
  for (uint64_t i = 0; i < sites.count; ++i) {
    const char* record = sites.records + i * sizeof(symb_inline);
    const auto site = symb_load<symb_inline>(record);
    if (site.size == 0) continue;
    ranges.push_back({site.address, uint64_t{site.address} + site.size - 1});
    stored.push_back(record);
  }
  RangeNesting<uint64_t> nesting;
  std::vector<const char*> stack;
  for (const uint32_t i : nesting.nest(ranges)) {
    if (ranges[i].base <= address && address <= ranges[i].high) stack.push_back(stored[i]);
  }
  return stack;
}

// As above without sorting. From a table in pre-order, the tree would store every site, inside
// exactly those before it that contain it (see NestedRangeStack). So the sites around an address
// are those whose range contains it, in the order of the table. Returns false if the table is not
// in pre-order.
bool inline_stack_in_order(const Table& sites, uint64_t address,
                           std::pmr::vector<const char*>& stack) {
  NestedRangeStack nesting;
  for (uint64_t i = 0; i < sites.count; ++i) {
    const char* record = sites.records + i * sizeof(symb_inline);
    const auto site = symb_load<symb_inline>(record);
    const NestedRangeStack::Result result = nesting.add(site.address, site.size, site.caller);
    if (result == NestedRangeStack::Result::kOutOfOrder) return false;
    if (result == NestedRangeStack::Result::kNested && address - site.address < site.size) {
      stack.push_back(record);
    }
  }
  return true;
}

void Tables::append_inlines(const Table& sites, uint64_t address, StackFrame* frame) const {
  char memory[64 * sizeof(const char*)];
  std::pmr::monotonic_buffer_resource resource(memory, sizeof(memory));
  std::pmr::vector<const char*> stack(&resource);
  stack.reserve(16);
  if (!inline_stack_in_order(sites, address, stack)) {
    const auto by_nesting = inline_stack_by_nesting(sites, address);
    stack.assign(by_nesting.begin(), by_nesting.end());
  }
  frame->inlines.reserve(frame->inlines.size() + stack.size());
  for (const char* site : stack) prefetch(symb_load<symb_inline>(site).name);
  for (auto site = stack.rbegin(); site != stack.rend(); ++site) {
    append_inline(symb_load<symb_inline>(*site), frame);
  }
}

// Returns the start of the last function that starts at or below `address`; 0 if there is none.
uint64_t Tables::nearest_function_inline(uint64_t address) const {
  constexpr size_t kRecord = sizeof(symb_func_inline);
  const Table functions = header_table<kRecord>(offsetof(symb_header_v1, functions));
  const uint64_t position = upper_bound<kRecord, offsetof(symb_func_inline, address)>(
      functions.records, functions.count, address);
  if (position == 0) return 0;
  return symb_load<symb_func_inline>(functions.records + (position - 1) * kRecord).address;
}

// A public symbol applies to the addresses from its own up to the next function. A function that
// ended before the address hides the publics at and below its start.
void Tables::set_public(uint64_t address, uint64_t nearest_function, StackFrame* frame) const {
  constexpr size_t kRecord = sizeof(symb_public);
  const Table publics = header_table<kRecord>(offsetof(symb_header_v1, public_functions));
  const uint64_t position =
      upper_bound<kRecord, offsetof(symb_public, address)>(publics.records, publics.count, address);
  if (position == 0) return;
  const auto symbol = symb_load<symb_public>(publics.records + (position - 1) * kRecord);
  if (nearest_function != 0 && symbol.address <= nearest_function) return;
  frame->function_name = string(symbol.name);
  frame->function_base = symbol.address + frame->module->base_address();
}

// Returns the narrowest range of that type that contains `address`, or null.
const char* Tables::find_frame_info(uint64_t type, uint64_t address) const {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  if (header(offsetof(symb_header_v1, windows_frame_info)) == 0) return nullptr;
  const Table roots = header_table<kRecord>(offsetof(symb_header_v1, windows_frame_info));
  if (roots.count <= type) return nullptr;
  return SymbNestedWFIFind(address, roots.records + type * kRecord);
}

// Returns the narrowest range that contains `address` among those inside the given record, or null.
// Nesting beyond that of real programs, or a cycle, is a sign of a damaged block: nothing is found.
const char* Tables::SymbNestedWFIFind(uint64_t address, const char* nested_wfi) const {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  const char* found = nullptr;
  for (size_t depth = 0; depth <= kMaxFrameInfoDepth; ++depth) {
    const auto owner = symb_load<symb_nested_window_frame_info>(found ? found : nested_wfi);
    if (owner.map == 0 || owner.map_count == 0) return found;
    const Table array = table<kRecord>(owner.map, owner.map_count);
    const uint64_t position =
        lower_bound<kRecord, offsetof(symb_nested_window_frame_info, address)>(
            array.records, array.count, address);
    if (position >= array.count) return found;
    const char* const candidate = array.records + position * kRecord;
    if (address < symb_load<symb_nested_window_frame_info>(candidate).base) return found;
    found = candidate;
  }
  return nullptr;
}

std::unique_ptr<WindowsFrameInfo> frame_info_of(const Tables& tables, const char* record) {
  const symb_window_frame_info found = symb_load<symb_nested_window_frame_info>(record).wfi;
  auto info = std::make_unique<WindowsFrameInfo>();
  info->type_ = static_cast<WindowsFrameInfo::StackInfoTypes>(found.type);
  info->valid = found.valid;
  static_cast<StackWinSizes&>(*info) = symforge_internal::symb_sizes(found);
  info->allocates_base_pointer = found.allocates_base_pointer != 0;
  if (found.program_string != 0) info->program_string = tables.string(found.program_string);
  return info;
}

}  // namespace

bool BasicSourceLineResolver::Module::LoadMapFromMemoryB(char* memory_buffer,
                                                         size_t memory_buffer_size) {
  // A block shorter than a header has no symbols.
  static constexpr symb_header_v1 kNoSymbols{};
  const bool has_header = memory_buffer_size >= sizeof kNoSymbols;
  symb_loaded_ = true;
  symb_base_ = has_header ? memory_buffer : reinterpret_cast<const char*>(&kNoSymbols);
  symb_size_ = has_header ? memory_buffer_size : sizeof kNoSymbols;
  return true;
}

void BasicSourceLineResolver::Module::LookupAddressB(StackFrame* frame) const {
  if (!symb_loaded_) return;
  const Tables tables(symb_base_, symb_size_);
  if (symb_has_inlines(tables.version())) {
    LookupAddressBInline(frame);
    return;
  }
  if (!tables.has_functions()) return;
  const uint64_t address = relative_address(*frame);
  const char* record = tables.function<sizeof(symb_func)>(address);
  if (record == nullptr) return;
  const auto function = symb_load<symb_func>(record);
  tables.set_function(function, frame);
  tables.set_line(function, address, frame);
}

void BasicSourceLineResolver::Module::LookupAddressBInline(StackFrame* frame) const {
  if (!symb_loaded_) return;
  const Tables tables(symb_base_, symb_size_);
  const uint64_t address = relative_address(*frame);
  if (!tables.has_functions()) {
    tables.set_public(address, 0, frame);
    return;
  }
  const char* record = tables.function<sizeof(symb_func_inline)>(address);
  if (record == nullptr) {
    tables.set_public(address, tables.nearest_function_inline(address), frame);
    return;
  }
  const auto function = symb_load<symb_func>(record);
  const auto inline_count = symb_load<uint32_t>(record + offsetof(symb_func_inline, inline_count));
  const auto inlines = symb_load<uint64_t>(record + offsetof(symb_func_inline, inlines));
  // The next accesses go to three distant locations.
  tables.prefetch(function.name);
  tables.prefetch(function.lines);
  if (inline_count != 0) tables.prefetch(inlines);
  tables.set_function(function, frame);
  if (function.line_count == 0) return;  // such a function has no inline frames, either
  tables.set_line(function, address, frame);
  if (inline_count == 0 || inline_count > kMaxInlineSites) return;
  tables.append_inlines(tables.table<sizeof(symb_inline)>(inlines, inline_count), address, frame);
}

WindowsFrameInfo* BasicSourceLineResolver::Module::FindWindowsFrameInfoB(
    const StackFrame* frame) const {
  if (!symb_loaded_) return nullptr;
  const Tables tables(symb_base_, symb_size_);
  const uint64_t address = relative_address(*frame);
  for (const auto type :
       {WindowsFrameInfo::STACK_INFO_FRAME_DATA, WindowsFrameInfo::STACK_INFO_FPO}) {
    const char* record = tables.find_frame_info(type, address);
    if (record != nullptr) return frame_info_of(tables, record).release();
  }

  // Falls back to the parameter size of a function. All versions are read with the record size of
  // version 2. In version 3, whose records are longer, the result is therefore wrong; it is kept
  // for compatibility.
  if (!tables.has_functions()) return nullptr;
  const char* record = tables.function<sizeof(symb_func)>(address);
  if (record == nullptr) return nullptr;
  auto info = std::make_unique<WindowsFrameInfo>();
  info->valid = WindowsFrameInfo::VALID_PARAMETER_SIZE;
  info->parameter_size = static_cast<uint32_t>(symb_load<symb_func>(record).parameter_size);
  return info.release();
}

CFIFrameInfo* BasicSourceLineResolver::Module::FindCFIFrameInfoB(const StackFrame* frame) const {
  if (!symb_loaded_) return nullptr;
  const Tables tables(symb_base_, symb_size_);
  const uint64_t address = relative_address(*frame);
  constexpr size_t kInitial = sizeof(symb_cfi_rule);
  const Table initial_rules =
      tables.header_table<kInitial>(offsetof(symb_header_v1, cfi_initial_rules));
  const char* found = find_range<kInitial, offsetof(symb_cfi_rule, base)>(
      initial_rules.records, initial_rules.count, static_cast<uint32_t>(address));
  if (found == nullptr) return nullptr;
  const auto initial = symb_load<symb_cfi_rule>(found);
  RuleSetApplier rules(*this);
  if (!rules.ApplyInitial(tables.string(initial.rule))) return nullptr;

  constexpr size_t kDelta = sizeof(symb_cfi_delta_rule);
  const Table deltas = tables.header_table<kDelta>(offsetof(symb_header_v1, cfi_delta_rules));
  uint64_t i = lower_bound<kDelta, offsetof(symb_cfi_delta_rule, address)>(
      deltas.records, deltas.count, initial.base);
  for (; i < deltas.count; ++i) {
    const auto delta = symb_load<symb_cfi_delta_rule>(deltas.records + i * kDelta);
    if (delta.address > address) break;
    if (!rules.ApplyDelta(tables.string(delta.rule))) return nullptr;
  }
  return rules.Release();
}

}  // namespace google_breakpad
