// The module as the resolver base sees it, and the records of symbols.
//
// Addresses are relative to the module and 64 bits wide; sizes are in bytes. Names are
// NUL-terminated and lie in the arena of the module that the record belongs to.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "google_breakpad/processor/source_line_resolver_base.h"

namespace google_breakpad {

using MemAddr = uint64_t;

struct SourceLineResolverBase::Line {
  MemAddr address;
  MemAddr size;
  int32_t source_file_id;  // the number of a FILE line
  int32_t line;
};

struct SourceLineResolverBase::Function {
  const char* name;
  MemAddr address;
  MemAddr size;
  unsigned int section;    // the number before the colon of the line's address, else 0
  int32_t parameter_size;  // stack space of the parameters
  bool is_multiple;        // stands for several symbols that were folded into one
  bool has_inline_calls;   // its sites come from INLINE lines, so lookups on text return them
};

// One range of code of an inline site.
struct SourceLineResolverBase::InlineFunction {
  MemAddr function_address;  // the range's first address, despite its name
  MemAddr code_size;
  int file_id;      // the number of a FILE line
  int source_line;  // in the inlined function
  MemAddr caller;   // how deep the site is nested, 0 for the outermost
  const char* name;
};

struct SourceLineResolverBase::PublicSymbol {
  const char* name;
  MemAddr address;
  int32_t parameter_size;
  bool is_multiple;
};

// The symbols of one code module. Loaded once, by one thread, before any lookup. The lookups take a
// frame whose `module` is set.
class SourceLineResolverBase::Module {
 public:
  virtual ~Module() = default;

  // Fills the module from the contents of a symbol file. The buffer stays the caller's and is
  // changed by the load.
  virtual bool LoadMapFromMemory(char* memory_buffer, size_t memory_buffer_size) = 0;

  // Whether the load met lines that it could not parse.
  virtual bool IsCorrupt() const = 0;

  // What the operations of SourceLineResolverInterface promise, for this module.
  virtual void LookupAddress(StackFrame* frame) const = 0;
  virtual WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame* frame) const = 0;
  virtual CFIFrameInfo* FindCFIFrameInfo(const StackFrame* frame) const = 0;

  // Stores the rules of a STACK CFI text in `frame_info`, over those that are there. False if the
  // text is malformed; rules before the fault are stored.
  virtual bool ParseCFIRuleSet(const std::string& rule_set, CFIFrameInfo* frame_info) const;
};

}  // namespace google_breakpad
