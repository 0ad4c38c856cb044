#include "processor/resolved_address.h"

#include "google_breakpad/processor/code_module.h"
#include "google_breakpad/processor/stack_frame.h"

namespace google_breakpad {

void copy_to_frame(const ResolvedAddress& answer, const ResolvedInlines& inlines,
                   StackFrame* frame) {
  const uint64_t module_base = frame->module->base_address();
  if (answer.has_function) {
    frame->function_name = answer.function_name;
    frame->function_base = answer.function_base + module_base;
  }
  if (answer.has_file) frame->source_file_name = answer.source_file;
  if (answer.has_line) {
    frame->source_line = answer.source_line;
    frame->source_line_base = answer.line_base + module_base;
  }
  if (inlines.empty()) return;
  frame->inlines.reserve(frame->inlines.size() + inlines.size());
  for (const ResolvedInline& inlined : inlines) {
    StackFrame::Inline& copy = frame->inlines.emplace_back();
    copy.name = inlined.name;
    copy.source_file_name = inlined.source_file;
    copy.source_line = inlined.source_line;
  }
}

}  // namespace google_breakpad
