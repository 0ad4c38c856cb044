// ResolvedAddress: what a module knows about one address. The result of an array lookup.
//
// The same facts as in StackFrame, but strings are not copied: they point into the module and are
// valid as long as it is loaded. Each is followed by a NUL byte, except where a lookup truncates
// it: after 1 MiB (common/lookup_limits.h), or at the end of a SYMB block that has not been
// checked. Addresses are relative to the module.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <string_view>
#include <vector>

namespace google_breakpad {

struct StackFrame;

// A call that the compiler inlined.
struct ResolvedInline {
  std::string_view name;         // of the callee
  std::string_view source_file;  // position in the callee; empty if unknown
  int source_line = 0;
};
using ResolvedInlines = std::pmr::vector<ResolvedInline>;

struct ResolvedAddress {
  bool has_function = false;  // `function_name` and `function_base` are set
  bool is_public = false;     // the function is a public symbol
  bool has_file = false;      // `source_file` is set; only if `has_line` is true
  bool has_line = false;      // `source_line` and `line_base` are set
  int source_line = 0;
  uint32_t inline_count = 0;  // number of inline frames
  size_t first_inline = 0;    // position of the innermost one in the ResolvedInlines
  std::string_view function_name;
  uint64_t function_base = 0;  // start of the function or public symbol
  std::string_view source_file;
  uint64_t line_base = 0;  // start of the code of that line
};

// Stores the results for one address, with all `inlines`, in a frame with a module. Sets only what
// was found, and appends the inline frames.
void copy_to_frame(const ResolvedAddress& answer, const ResolvedInlines& inlines,
                   StackFrame* frame);

}  // namespace google_breakpad
