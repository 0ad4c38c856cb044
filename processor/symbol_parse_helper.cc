#include "processor/symbol_parse_helper.h"

#include <cassert>
#include <cstring>

#include "common/symbol_text.h"

namespace google_breakpad {

namespace {

// Parses a NUL-terminated line by the full grammar.
template <typename Fields>
bool parse_line(char* line, Fields* fields) {
  return symforge_internal::parse(line, line + strlen(line), fields);
}

// The text as a writable pointer into the line it was read from, where a NUL terminates it.
char* writable(std::string_view text) { return const_cast<char*>(text.data()); }

}  // namespace

bool SymbolParseHelper::IsValidAfterNumber(char* after_number) {
  return symforge_internal::is_valid_after_number(after_number);
}

bool SymbolParseHelper::ParseFile(char* file_line, long* index, char** filename) {
  assert(strncmp(file_line, "FILE ", 5) == 0);
  symforge_internal::FileFields fields{};
  if (!parse_line(file_line, &fields)) return false;
  *index = fields.index;
  *filename = writable(fields.name);
  return true;
}

bool SymbolParseHelper::ParseFunction(char* function_line, bool* is_multiple, uint32_t* section,
                                      uint64_t* address, uint64_t* size, long* stack_param_size,
                                      char** name) {
  assert(strncmp(function_line, "FUNC ", 5) == 0);
  symforge_internal::FunctionFields fields{};
  if (!parse_line(function_line, &fields)) return false;
  *is_multiple = fields.is_multiple;
  *section = fields.section.value_or(0);
  *address = fields.address;
  *size = fields.size;
  *stack_param_size = fields.stack_param_size;
  *name = writable(fields.name);
  return true;
}

bool SymbolParseHelper::ParseLine(char* line_line, uint64_t* address, uint64_t* size,
                                  long* line_number, long* source_file) {
  symforge_internal::LineFields fields{};
  if (!parse_line(line_line, &fields)) return false;
  *address = fields.address;
  *size = fields.size;
  *line_number = fields.line_number;
  *source_file = fields.source_file;
  return true;
}

bool SymbolParseHelper::ParsePublicSymbol(char* public_line, bool* is_multiple, uint64_t* address,
                                          long* stack_param_size, char** name) {
  assert(strncmp(public_line, "PUBLIC ", 7) == 0);
  symforge_internal::PublicFields fields{};
  if (!parse_line(public_line, &fields)) return false;
  *is_multiple = fields.is_multiple;
  *address = fields.address;
  *stack_param_size = fields.stack_param_size;
  *name = writable(fields.name);
  return true;
}

bool SymbolParseHelper::ParseInlineFunction(char* inline_line, uint64_t* address, uint64_t* size,
                                            long* line_number, long* source_file, uint32_t* caller,
                                            char** name) {
  symforge_internal::InlineFields fields{};
  if (!parse_line(inline_line, &fields)) return false;
  *address = fields.address;
  *size = fields.size;
  *line_number = fields.line_number;
  *source_file = fields.source_file;
  *caller = fields.caller;
  *name = writable(fields.name);
  return true;
}

}  // namespace google_breakpad
