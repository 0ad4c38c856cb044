// The lookups in a SYMB block: binary searches in its tables, which may be in a read-only mapping.
// Nothing is parsed or cached; IndexTables() adds an index, which does not change results. Array
// lookups are in symb_array_lookups.cc.

#include <algorithm>
#include <memory>
#include <memory_resource>
#include <string_view>

#include "common/lookup_limits.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "google_breakpad/processor/code_module.h"
#include "google_breakpad/processor/stack_frame.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/rule_set_applier.h"
#include "processor/symb_search.h"
#include "processor/symb_tables.h"

namespace google_breakpad {

using symforge_internal::kMaxFrameInfoDepth;
using symforge_internal::symb_has_inlines;

namespace {

uint64_t relative_address(const StackFrame& frame) {
  return frame.instruction - frame.module->base_address();
}

template <typename Function>
void resolve_line(const SymbTables& tables, const Function& function, uint64_t address,
                  ResolvedAddress* answer) {
  SymbSearch search = tables.line_search(function, address);
  prefetch_start<LineStep>(search);
  search_by_guess<LineStep>(search);
  if (!search.has_found()) return;
  const auto line = SymbTables::found<symb_line>(search);
  tables.set_line(line, answer);
  SymbSearch file = tables.file_search(line.source_file_id);
  search_alone<FileStep>(file);
  tables.set_file(file, answer);
}

// Looks up an address in a block of version 1 or 2.
void resolve_plain(const SymbTables& tables, uint64_t address, ResolvedAddress* answer) {
  if (!tables.has_functions()) return;
  SymbSearch search = tables.functions<symb_func>().search_for(address);
  tables.run<FunctionStep>(search, &SymbIndex::functions);
  if (!search.has_found()) return;
  const auto function = SymbTables::found<symb_func>(search);
  tables.prefetch_name(function.name);
  resolve_line(tables, function, address, answer);
  tables.set_function(function, answer);
}

// Looks up an address outside of all functions.
void resolve_public(const SymbTables& tables, SymbSearch function, ResolvedAddress* answer) {
  SymbSearch symbol = tables.public_search(function.key);
  tables.run<PublicStep>(symbol, &SymbIndex::publics);
  tables.run<FunctionStartStep>(function, &SymbIndex::functions);
  tables.set_public(symbol, function, answer);
}

// Looks up an address in a block of version 3.
void resolve_with_inlines(const SymbTables& tables, uint64_t address, ResolvedAddress* answer,
                          ResolvedInlines* inlines) {
  const SymbTable functions =
      tables.has_functions() ? tables.functions<symb_func_inline>() : SymbTable();
  SymbSearch search = functions.search_for(address);
  tables.run<InlineFunctionStep>(search, &SymbIndex::functions);
  if (!search.has_found()) {
    resolve_public(tables, functions.search_for(address), answer);
    return;
  }
  const auto function = SymbTables::found<symb_func_inline>(search);
  // The next accesses go to three distant locations: the name, the lines and the sites.
  tables.prefetch_name(function.name);
  if (function.inline_count != 0) tables.prefetch(function.inlines);
  resolve_line(tables, function, address, answer);
  tables.set_function(function, answer);
  if (function.line_count == 0) return;  // such a function has no inline frames, either
  tables.append_inlines(function.inlines, function.inline_count, address, answer, inlines);
}

// Returns the narrowest range that contains `address` among those inside the given record, or null.
// Nesting beyond that of real programs, or a cycle, is a sign of a damaged block: nothing is found.
const char* SymbNestedWFIFind(const SymbTables& tables, uint64_t address, const char* nested_wfi) {
  using Record = symb_nested_window_frame_info;
  const char* found = nullptr;
  for (size_t depth = 0; depth <= kMaxFrameInfoDepth; ++depth) {
    const auto owner = symb_load<Record>(found ? found : nested_wfi);
    if (owner.map == 0 || owner.map_count == 0) return found;
    const SymbTable array = tables.table<Record>(owner.map, owner.map_count);
    SymbSearch search = array.search_for(address);
    search_alone<AddressStep<Record, offsetof(Record, address)>>(search);
    if (search.end_below() >= array.count) return found;
    const char* const candidate = array.records + search.end_below() * sizeof(Record);
    if (address < symb_load<Record>(candidate).base) return found;
    found = candidate;
  }
  return nullptr;
}

// Returns the narrowest range of that type that contains `address`, or null.
const char* find_frame_info(const SymbTables& tables, uint64_t type, uint64_t address) {
  using Record = symb_nested_window_frame_info;
  constexpr size_t kField = offsetof(symb_header_v1, windows_frame_info);
  if (tables.header(kField) == 0) return nullptr;
  const SymbTable roots = tables.header_table<Record>(kField);
  if (roots.count <= type) return nullptr;
  return SymbNestedWFIFind(tables, address, roots.records + type * sizeof(Record));
}

std::unique_ptr<WindowsFrameInfo> frame_info_of(const SymbTables& tables, const char* record) {
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
  symb_index_.reset();
  symb_base_ = has_header ? memory_buffer : reinterpret_cast<const char*>(&kNoSymbols);
  symb_size_ = has_header ? memory_buffer_size : sizeof kNoSymbols;
  return true;
}

void BasicSourceLineResolver::Module::IndexTables() {
  if (!symb_loaded_) return;
  symb_index_ = std::make_unique<const SymbIndex>(SymbTables(symb_base_, symb_size_));
}

void BasicSourceLineResolver::Module::LookupAddressB(StackFrame* frame) const {
  if (!symb_loaded_) return;
  const SymbTables tables(symb_base_, symb_size_, symb_index_.get());
  if (symb_has_inlines(tables.version())) {
    LookupAddressBInline(frame);
    return;
  }
  ResolvedAddress answer;
  resolve_plain(tables, relative_address(*frame), &answer);
  copy_to_frame(answer, {}, frame);
}

void BasicSourceLineResolver::Module::LookupAddressBInline(StackFrame* frame) const {
  if (!symb_loaded_) return;
  char memory[16 * sizeof(ResolvedInline)];
  std::pmr::monotonic_buffer_resource resource(memory, sizeof(memory));
  ResolvedInlines inlines(&resource);
  ResolvedAddress answer;
  resolve_with_inlines(SymbTables(symb_base_, symb_size_, symb_index_.get()),
                       relative_address(*frame), &answer, &inlines);
  copy_to_frame(answer, inlines, frame);
}

WindowsFrameInfo* BasicSourceLineResolver::Module::FindWindowsFrameInfoB(
    const StackFrame* frame) const {
  if (!symb_loaded_) return nullptr;
  const SymbTables tables(symb_base_, symb_size_, symb_index_.get());
  const uint64_t address = relative_address(*frame);
  for (const auto type :
       {WindowsFrameInfo::STACK_INFO_FRAME_DATA, WindowsFrameInfo::STACK_INFO_FPO}) {
    const char* record = find_frame_info(tables, type, address);
    if (record != nullptr) return frame_info_of(tables, record).release();
  }

  // Falls back to the parameter size of a function. All versions are read with the record size of
  // version 2. In version 3, whose records are longer, the result is therefore wrong; it is kept
  // for compatibility.
  if (!tables.has_functions()) return nullptr;
  SymbSearch search = tables.functions<symb_func>().search_for(address);
  search_by_guess<FunctionStep>(search);
  if (!search.has_found()) return nullptr;
  auto info = std::make_unique<WindowsFrameInfo>();
  info->valid = WindowsFrameInfo::VALID_PARAMETER_SIZE;
  info->parameter_size = static_cast<uint32_t>(SymbTables::found<symb_func>(search).parameter_size);
  return info.release();
}

CFIFrameInfo* BasicSourceLineResolver::Module::FindCFIFrameInfoB(const StackFrame* frame) const {
  if (!symb_loaded_) return nullptr;
  const SymbTables tables(symb_base_, symb_size_, symb_index_.get());
  const uint64_t address = relative_address(*frame);
  SymbSearch search = tables.initial_rules().search_for(address);
  // The changes to the initial rules are near the address in their own table. Waiting for both
  // tables at once is shorter.
  SymbSearch near = tables.delta_rules().search_for(address);
  if (symb_index_ != nullptr) symb_index_->delta_rules.prefetch<DeltaRuleStep>(near);
  tables.run<InitialRuleStep>(search, &SymbIndex::initial_rules);
  if (!search.has_found()) return nullptr;
  const auto initial = SymbTables::found<symb_cfi_rule>(search);
  tables.prefetch_name(initial.rule);

  const SymbTable deltas = tables.delta_rules();
  SymbSearch first = deltas.search_for(initial.base);
  tables.run<DeltaRuleStep>(first, &SymbIndex::delta_rules);
  const auto delta_at = [&deltas](uint64_t position) {
    return symb_load<symb_cfi_delta_rule>(deltas.records + position * sizeof(symb_cfi_delta_rule));
  };
  constexpr uint64_t kUsual = 4;
  for (uint64_t i = first.end_below(); i < std::min(first.end_below() + kUsual, deltas.count);
       ++i) {
    tables.prefetch_name(delta_at(i).rule);
  }

  RuleSetApplier rules;
  if (!rules.ApplyInitial(tables.string(initial.rule))) return nullptr;
  for (uint64_t i = first.end_below(); i < deltas.count; ++i) {
    const symb_cfi_delta_rule delta = delta_at(i);
    if (delta.address > address) break;
    if (!rules.ApplyDelta(tables.string(delta.rule))) return nullptr;
  }
  return rules.Release();
}

}  // namespace google_breakpad
