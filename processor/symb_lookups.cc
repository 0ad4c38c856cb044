// Lookups on a SYMB block, in place.

#include "processor/basic_source_line_resolver_module.h"

namespace google_breakpad {

bool BasicSourceLineResolver::Module::LoadMapFromMemoryB(char* memory_buffer, size_t) {
  symb_loaded_ = true;
  symb_base_ = memory_buffer;
  return true;
}

void BasicSourceLineResolver::Module::LookupAddressB(StackFrame*) const {}

void BasicSourceLineResolver::Module::LookupAddressBInline(StackFrame*) const {}

WindowsFrameInfo* BasicSourceLineResolver::Module::FindWindowsFrameInfoB(const StackFrame*) const {
  return nullptr;
}

CFIFrameInfo* BasicSourceLineResolver::Module::FindCFIFrameInfoB(const StackFrame*) const {
  return nullptr;
}

}  // namespace google_breakpad
