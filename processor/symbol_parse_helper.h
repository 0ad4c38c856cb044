// SymbolParseHelper: a parser for each kind of line with a fixed layout in a text symbol file.
//
// Each function takes a writable, NUL-terminated line, splits it in place and returns its fields.
// Strings are pointers into the line, or "<omitted>" where a name is missing. A bad line is only
// reported by the result false; output arguments may have been set. Nothing is logged.
//
//   FILE id name
//   FUNC [m] [section:]address size stack_param_size [name]
//   PUBLIC [m] address stack_param_size [name]
//   address size line_number source_file
//   I address size line_number source_file caller name
//
// `id`, `line_number` and `source_file` are decimal, all other numbers hexadecimal. Sizes are in
// bytes. `caller` is the nesting depth of the site, 0 for the outermost.

#pragma once

#include <cstdint>

namespace google_breakpad {

class SymbolParseHelper {
 public:
  SymbolParseHelper() = delete;

  // The line must begin with "FILE " (asserted).
  static bool ParseFile(char* file_line, long* index, char** filename);

  // The line must begin with "FUNC " (asserted).
  static bool ParseFunction(char* function_line, bool* is_multiple, uint32_t* section,
                            uint64_t* address, uint64_t* size, long* stack_param_size, char** name);

  static bool ParseLine(char* line_line, uint64_t* address, uint64_t* size, long* line_number,
                        long* source_file);

  // The line must begin with "PUBLIC " (asserted).
  static bool ParsePublicSymbol(char* public_line, bool* is_multiple, uint64_t* address,
                                long* stack_param_size, char** name);

  // Rejects only missing fields and numbers out of range. A field that is not a number counts as 0,
  // and characters after a number are ignored. The name is the rest of the line, unchanged.
  static bool ParseInlineFunction(char* inline_line, uint64_t* address, uint64_t* size,
                                  long* line_number, long* source_file, uint32_t* caller,
                                  char** name);

  // Whether a number may be followed by `*after_number`: a blank, a line end or the end of the
  // text.
  static bool IsValidAfterNumber(char* after_number);
};

}  // namespace google_breakpad
