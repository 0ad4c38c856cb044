// Lookups on a module that was loaded from text. They read the containers and nothing else, so any
// number of threads may look up at once.

#include <algorithm>
#include <memory>
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

// The line whose range holds `address`, or null. Lines are disjoint and ascending. Without branches
// on the addresses, which no predictor could guess.
const Line* line_at(std::span<const Line> lines, MemAddr address) {
  if (lines.empty()) return nullptr;
  const Line* line = lines.data();
  for (size_t length = lines.size(); length > 1;) {
    const size_t half = length / 2;
    line = line[half].address <= address ? line + half : line;
    length -= half;
  }
  return address - line->address < line->size ? line : nullptr;
}

// Fetches what lies behind a function in the arena: its name, and mostly all of its lines. Waiting
// for the record first, to learn where they are, would cost a second trip to memory.
void prefetch_with_records(const Function* function) {
  constexpr int kCacheLine = 64, kLines = 6;
  const char* at = reinterpret_cast<const char*>(function);
  for (int i = 0; i < kLines; ++i) __builtin_prefetch(at + i * kCacheLine);
}

// The function at or nearest below an address.
struct NearestFunction {
  const Function* function = nullptr;  // null: there is none
  MemAddr base = 0;
  bool holds_address = false;

  NearestFunction(const BasicSourceLineResolver::Module::FunctionMap& functions, MemAddr address) {
    MemAddr size = 0;
    if (!functions.RetrieveNearestRange(address, &function, &base, nullptr, &size)) return;
    prefetch_with_records(function);
    holds_address = address >= base && address - base < size;
  }
  // A function hides the public symbols at and below its start, also behind its end.
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
  const MemAddr address = relative_address(frame);
  const MemAddr module_base = frame->module->base_address();
  const NearestFunction nearest(functions_, address);
  if (nearest.holds_address) {
    frame->function_name = limited_string(nearest.function->name);
    frame->function_base = module_base + nearest.base;
    if (const Line* line = line_at(nearest.function->lines(), address)) {
      const auto file = files_.find(line->source_file_id);
      if (file != files_.end()) frame->source_file_name = limited_string(file.value());
      frame->source_line = line->line;
      frame->source_line_base = module_base + line->address;
    }
    if (nearest.function->has_inline_calls) AppendInlines(*nearest.function, address, frame);
    return;
  }
  PublicSymbol symbol;
  MemAddr public_address = 0;
  if (!public_symbols_.Retrieve(address, &symbol, &public_address)) return;
  if (nearest.hides(public_address)) return;
  frame->function_name = limited_string(symbol.name);
  frame->function_base = module_base + public_address;
}

// The sites around the address, the innermost first. In their order, outer sites come first. None
// where they are beyond the limits of a lookup.
void BasicSourceLineResolver::Module::AppendInlines(const Function& function, MemAddr address,
                                                    StackFrame* frame) const {
  if (function.inlines().size() > kMaxInlineSites) return;
  const size_t before = frame->inlines.size();
  uint64_t bytes = 0;
  for (const InlineFunction& site : function.inlines()) {
    if (site.function_address > address) break;
    if (address - site.function_address >= site.code_size) continue;
    StackFrame::Inline& inlined = frame->inlines.emplace_back();
    inlined.name = limited_string(site.name);
    inlined.source_line = site.source_line;
    const auto file = files_.find(site.file_id);
    if (file != files_.end()) inlined.source_file_name = limited_string(file.value());
    bytes += sizeof inlined + inlined.name.size() + inlined.source_file_name.size();
    if (bytes > kMaxInlinePathBytes) {
      frame->inlines.resize(before);
      return;
    }
  }
  std::reverse(frame->inlines.begin() + static_cast<ptrdiff_t>(before), frame->inlines.end());
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
  // A function can tell the size of its parameters. A public symbol could as well, but does not:
  // hosts take a record without a function or a STACK WIN line behind it for one that they can
  // unwind with.
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
  RuleSetApplier rules(*this);
  if (!rules.ApplyInitial(limited_string(initial_rules))) return nullptr;
  // Changes on the way from the start of the range to the address.
  for (auto delta = cfi_delta_rules_.lower_bound(initial_base);
       delta != cfi_delta_rules_.end() && delta.key() <= address; ++delta) {
    if (!rules.ApplyDelta(limited_string(delta.value()))) return nullptr;
  }
  return rules.Release();
}

}  // namespace google_breakpad
