#include "processor/symb_tables.h"

#include <memory_resource>
#include <vector>

#include "base/nested_range_stack.h"
#include "base/range_nesting.h"

namespace google_breakpad {

using symforge_internal::kMaxInlineSites;
using symforge_internal::NestedRangeStack;
using symforge_internal::RangeNesting;

namespace {

// The sites around an address, the outermost first, for tables whose sites are not in pre-order:
// the result is that of a tree of all sites.
std::vector<const char*> inline_stack_by_nesting(const SymbTable& sites, uint64_t address) {
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
bool inline_stack_in_order(const SymbTable& sites, uint64_t address,
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

}  // namespace

void SymbTables::set_public(const SymbSearch& search, const SymbSearch& function,
                            ResolvedAddress* answer) const {
  if (search.end_at_or_below() == 0) return;
  const auto symbol =
      symb_load<symb_public>(search.records + (search.end_at_or_below() - 1) * sizeof(symb_public));
  uint64_t nearest = 0;
  if (function.end_at_or_below() != 0) {
    const char* record =
        function.records + (function.end_at_or_below() - 1) * sizeof(symb_func_inline);
    nearest = symb_load<symb_func_inline>(record).address;
  }
  if (nearest != 0 && symbol.address <= nearest) return;
  answer->has_function = true;
  answer->is_public = true;
  answer->function_name = string(symbol.name);
  answer->function_base = symbol.address;
}

void SymbTables::append_inlines(uint64_t offset, uint32_t count, uint64_t address,
                                ResolvedAddress* answer, ResolvedInlines* inlines) const {
  if (count == 0 || count > kMaxInlineSites) return;
  const SymbTable sites = table<symb_inline>(offset, count);
  char memory[64 * sizeof(const char*)];
  std::pmr::monotonic_buffer_resource resource(memory, sizeof(memory));
  std::pmr::vector<const char*> stack(&resource);
  stack.reserve(16);
  if (!inline_stack_in_order(sites, address, stack)) {
    const auto by_nesting = inline_stack_by_nesting(sites, address);
    stack.assign(by_nesting.begin(), by_nesting.end());
  }
  for (const char* site : stack) prefetch_name(symb_load<symb_inline>(site).name);
  answer->first_inline = inlines->size();
  answer->inline_count = static_cast<uint32_t>(stack.size());
  for (auto record = stack.rbegin(); record != stack.rend(); ++record) {
    const auto site = symb_load<symb_inline>(*record);
    SymbSearch file = file_search(site.source_file_id);
    search_alone<FileStep>(file);
    ResolvedInline& inlined = inlines->emplace_back();
    inlined.name = string(site.name);
    inlined.source_line = site.line;
    if (file.has_found()) {
      inlined.source_file = string(found<symb_file>(file).name);
    }
  }
}

}  // namespace google_breakpad
