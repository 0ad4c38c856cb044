// SymbolParseHelper: a parser for each kind of line of a text symbol file that has a fixed layout.
//
// Each takes a writable, NUL-terminated line, splits it in place, and hands out its fields; strings
// are pointers into the line, or to the text "<omitted>" where a name is missing. A false result is
// the only report of a bad line; out-parameters may be partly written by then. Nothing is logged.
//
//   FILE id name
//   FUNC [m] [section:]address size stack_param_size [name]
//   PUBLIC [m] address stack_param_size [name]
//   address size line_number source_file
//   I address size line_number source_file caller name
//
// `id`, `line_number` and `source_file` are decimal, all other numbers hexadecimal. Sizes are in
// bytes; `caller` is how deep the site is nested, 0 for the outermost.

#pragma once

#include <cstdint>

namespace google_breakpad {

class SymbolParseHelper {
 public:
  SymbolParseHelper() = delete;

  // The line must begin with "FILE ", asserted.
  static bool ParseFile(char* file_line, long* index, char** filename);

  // The line must begin with "FUNC ", asserted.
  static bool ParseFunction(char* function_line, bool* is_multiple, uint32_t* section,
                            uint64_t* address, uint64_t* size, long* stack_param_size, char** name);

  static bool ParseLine(char* line_line, uint64_t* address, uint64_t* size, long* line_number,
                        long* source_file);

  // The line must begin with "PUBLIC ", asserted.
  static bool ParsePublicSymbol(char* public_line, bool* is_multiple, uint64_t* address,
                                long* stack_param_size, char** name);

  // Refuses missing fields and numbers out of range only: what is no number counts as 0, and
  // characters behind a number are ignored. The name is the rest of the line as it stands.
  static bool ParseInlineFunction(char* inline_line, uint64_t* address, uint64_t* size,
                                  long* line_number, long* source_file, uint32_t* caller,
                                  char** name);

  // Whether a number may end at `after_number`: before a blank, a line end or the end of the text.
  static bool IsValidAfterNumber(char* after_number);
};

}  // namespace google_breakpad
