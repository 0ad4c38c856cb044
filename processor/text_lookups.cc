// Lookups in a module that was loaded from text. They only read the containers, so any number of
// threads may run them concurrently.

#include <algorithm>
#include <cassert>
#include <memory>
#include <memory_resource>
#include <span>

#include "common/lookup_limits.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/rule_set_applier.h"

namespace google_breakpad {

using symforge_internal::kMaxFrameInfoDepth;
using symforge_internal::kMaxInlinePathBytes;
using symforge_internal::kMaxInlineSites;
using symforge_internal::limited_string;

namespace {

using Line = SourceLineResolverBase::Line;
using Function = BasicSourceLineResolver::Function;

MemAddr relative_address(const StackFrame* frame) {
  return frame->instruction - frame->module->base_address();
}

// Prefetches what follows a function in the arena: its name and usually all of its lines. Reading
// their addresses from the record first would cost a second memory access.
void prefetch_with_records(const Function* function) {
  constexpr int kCacheLine = 64, kLines = 6;
  const char* at = reinterpret_cast<const char*>(function);
  for (int i = 0; i < kLines; ++i) __builtin_prefetch(at + i * kCacheLine);
}

// The function at an address, or the nearest one below it.
struct NearestFunction {
  const Function* function = nullptr;  // null if there is none
  MemAddr base = 0;
  bool holds_address = false;

  NearestFunction(const BasicSourceLineResolver::Module::FunctionMap& functions, MemAddr address) {
    MemAddr size = 0;
    if (!functions.RetrieveNearestRange(address, &function, &base, nullptr, &size)) return;
    prefetch_with_records(function);
    holds_address = address >= base && address - base < size;
  }
  // A function hides the public symbols at and below its start, even for addresses after its end.
  bool hides(MemAddr public_address) const { return function != nullptr && public_address <= base; }
};

void copy_record(const StackWinRecord& record, WindowsFrameInfo* info) {
  static_cast<StackWinSizes&>(*info) = record;
  info->type_ = static_cast<WindowsFrameInfo::StackInfoTypes>(record.type);
  info->valid = WindowsFrameInfo::VALID_ALL;
  info->allocates_base_pointer = record.allocates_base_pointer;
  info->program_string = limited_string(record.program_string);
}

}  // namespace

void BasicSourceLineResolver::Module::LookupAddress(StackFrame* frame) const {
  if (symb_loaded_) {
    LookupAddressB(frame);
    return;
  }
  char memory[16 * sizeof(ResolvedInline)];
  std::pmr::monotonic_buffer_resource resource(memory, sizeof(memory));
  ResolvedInlines inlines(&resource);
  ResolvedAddress answer;
  Resolve(relative_address(frame), &answer, &inlines);
  copy_to_frame(answer, inlines, frame);
}

void BasicSourceLineResolver::Module::LookupAddresses(std::span<const uint64_t> addresses,
                                                      std::span<ResolvedAddress> answers,
                                                      ResolvedInlines* inlines) const {
  assert(answers.size() == addresses.size());
  if (symb_loaded_) {
    LookupAddressesB(addresses, answers, inlines);
    return;
  }
  for (size_t i = 0; i < addresses.size(); ++i) {
    answers[i] = ResolvedAddress();
    Resolve(addresses[i], &answers[i], inlines);
  }
}

void BasicSourceLineResolver::Module::Resolve(MemAddr address, ResolvedAddress* answer,
                                              ResolvedInlines* inlines) const {
  const NearestFunction nearest(functions_, address);
  if (nearest.holds_address) {
    answer->has_function = true;
    answer->function_name = limited_string(nearest.function->name);
    answer->function_base = nearest.base;
    Line line;
    if (nearest.function->records.FindLine(address, &line)) {
      const auto file = files_.find(line.source_file_id);
      answer->has_file = file != files_.end();
      if (answer->has_file) answer->source_file = limited_string(file.value());
      answer->has_line = true;
      answer->source_line = line.line;
      answer->line_base = line.address;
    }
    if (nearest.function->has_inline_calls) {
      answer->first_inline = inlines->size();
      AppendInlines(*nearest.function, address, inlines);
      answer->inline_count = static_cast<uint32_t>(inlines->size() - answer->first_inline);
    }
    return;
  }
  PublicSymbol symbol;
  MemAddr public_address = 0;
  if (!public_symbols_.Retrieve(address, &symbol, &public_address)) return;
  if (nearest.hides(public_address)) return;
  answer->has_function = true;
  answer->is_public = true;
  answer->function_name = limited_string(symbol.name);
  answer->function_base = public_address;
}

// Appends the sites around the address, innermost first. They are stored in pre-order. Appends none
// if they exceed the limits of a lookup.
void BasicSourceLineResolver::Module::AppendInlines(const Function& function, MemAddr address,
                                                    ResolvedInlines* inlines) const {
  const FunctionRecords& records = function.records;
  if (records.site_count() > kMaxInlineSites) return;
  const size_t before = inlines->size();
  uint64_t bytes = 0;
  for (size_t i = 0; i < records.site_count(); ++i) {
    const SourceLineResolverBase::InlineFunction site = records.site(i);
    if (site.function_address > address) break;
    if (address - site.function_address >= site.code_size) continue;
    ResolvedInline& inlined = inlines->emplace_back();
    inlined.name = limited_string(site.name);
    inlined.source_line = site.source_line;
    const auto file = files_.find(site.file_id);
    if (file != files_.end()) inlined.source_file = limited_string(file.value());
    bytes += sizeof(StackFrame::Inline) + inlined.name.size() + inlined.source_file.size();
    if (bytes > kMaxInlinePathBytes) {
      inlines->resize(before);
      return;
    }
  }
  std::reverse(inlines->begin() + static_cast<ptrdiff_t>(before), inlines->end());
}

WindowsFrameInfo* BasicSourceLineResolver::Module::FindWindowsFrameInfo(
    const StackFrame* frame) const {
  if (symb_loaded_) return FindWindowsFrameInfoB(frame);
  const MemAddr address = relative_address(frame);
  auto info = std::make_unique<WindowsFrameInfo>();
  StackWinRecord record;
  const auto find = [&](WindowsFrameInfo::StackInfoTypes type) {
    return windows_frame_info_[type].RetrieveRange(address, &record, kMaxFrameInfoDepth);
  };
  if (find(WindowsFrameInfo::STACK_INFO_FRAME_DATA) || find(WindowsFrameInfo::STACK_INFO_FPO)) {
    copy_record(record, info.get());
    return info.release();
  }
  // Falls back to the parameter size of a function. That of a public symbol is not used, because
  // hosts would unwind with a record that neither a function nor a STACK WIN line supports.
  const NearestFunction nearest(functions_, address);
  if (!nearest.holds_address) return nullptr;
  info->valid |= WindowsFrameInfo::VALID_PARAMETER_SIZE;
  info->parameter_size = static_cast<uint32_t>(nearest.function->parameter_size);
  return info.release();
}

CFIFrameInfo* BasicSourceLineResolver::Module::FindCFIFrameInfo(const StackFrame* frame) const {
  if (symb_loaded_) return FindCFIFrameInfoB(frame);
  const MemAddr address = relative_address(frame);
  const char* initial_rules = nullptr;
  MemAddr initial_base = 0;
  if (!cfi_initial_rules_.RetrieveRange(address, &initial_rules, &initial_base, nullptr, nullptr)) {
    return nullptr;
  }
  RuleSetApplier rules;
  if (!rules.ApplyInitial(limited_string(initial_rules))) return nullptr;
  // The changes from the start of the range up to the address.
  for (auto delta = cfi_delta_rules_.lower_bound(initial_base);
       delta != cfi_delta_rules_.end() && delta.key() <= address; ++delta) {
    if (!rules.ApplyDelta(limited_string(delta.value()))) return nullptr;
  }
  return rules.Release();
}

}  // namespace google_breakpad
