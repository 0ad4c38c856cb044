// The interface of a module towards the resolver base, and the records of symbols.
//
// Addresses are relative to the module and 64 bits wide; sizes are in bytes. Names are
// NUL-terminated strings in the arena of the module that owns the record.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "google_breakpad/processor/source_line_resolver_base.h"
#include "processor/resolved_address.h"

namespace google_breakpad {

using MemAddr = uint64_t;

struct SourceLineResolverBase::Line {
  MemAddr address;
  MemAddr size;
  int32_t source_file_id;  // number of a FILE line
  int32_t line;
};

struct SourceLineResolverBase::Function {
  const char* name;
  MemAddr address;
  MemAddr size;
  int32_t parameter_size;  // bytes of parameters on the stack
  bool is_multiple;        // the function is shared by several folded symbols
  bool has_inline_calls;   // its sites come from INLINE lines, so text lookups return them
};

// One address range of an inline site.
struct SourceLineResolverBase::InlineFunction {
  MemAddr function_address;  // first address of the range, despite the name
  MemAddr code_size;
  int file_id;      // number of a FILE line
  int source_line;  // in the inlined function
  MemAddr caller;   // nesting depth of the site, 0 for the outermost
  const char* name;
};

struct SourceLineResolverBase::PublicSymbol {
  const char* name;
  int32_t parameter_size;
  bool is_multiple;
};

// The symbols of one code module. Loaded once, by one thread, before any lookup. Lookups require a
// frame whose `module` is not null.
class SourceLineResolverBase::Module {
 public:
  virtual ~Module() = default;

  // Fills the module from the contents of a symbol file. The caller keeps the buffer; loading
  // modifies it.
  virtual bool LoadMapFromMemory(char* memory_buffer, size_t memory_buffer_size) = 0;

  // Whether loading found lines that did not parse.
  virtual bool IsCorrupt() const = 0;
  virtual BadLines FindBadLines() const = 0;

  // The lookups as documented in SourceLineResolverInterface, for this module.
  virtual void LookupAddress(StackFrame* frame) const = 0;
  virtual WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame* frame) const = 0;
  virtual CFIFrameInfo* FindCFIFrameInfo(const StackFrame* frame) const = 0;

  // Applies the rules of a STACK CFI text to `frame_info`, replacing existing ones. Returns false
  // if the text is malformed; the rules before the error have been applied.
  virtual bool ParseCFIRuleSet(const std::string& rule_set, CFIFrameInfo* frame_info) const;

  // Looks up an array of addresses relative to the module, in any order, with the same results as
  // LookupAddress. In a SYMB block several lookups wait for memory at the same time, so that one
  // takes a fraction of the time of a call of LookupAddress.
  //
  // Replaces all of `answers`, which has the size of `addresses`, and appends the inline frames of
  // all addresses to `*inlines`, the innermost of each address first. The memory of the frames at
  // one address is limited (kMaxInlinePathBytes), so pass arrays of a limited length. Several
  // threads may call it at once, with different answers and inlines.
  virtual void LookupAddresses(std::span<const uint64_t> addresses,
                               std::span<ResolvedAddress> answers,
                               ResolvedInlines* inlines) const = 0;

  // Makes later lookups in a SYMB block faster. Reads its tables of functions, public symbols and
  // rules once, and takes memory of about 1 % of the block. Does nothing for text. Call it after
  // the load and before the first lookup. Throws std::bad_alloc.
  virtual void IndexTables() = 0;
};

}  // namespace google_breakpad
