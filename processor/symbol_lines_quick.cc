// The quick readers: one look at each byte of a line, and nothing is copied or changed.

#include <cstring>

#include "base/number_cursor.h"
#include "processor/symbol_lines.h"
#include "processor/windows_frame_info.h"

namespace google_breakpad {

using symforge_internal::NumberCursor;

namespace {

bool is_line_end(char c) { return c == '\n' || c == '\r' || c == '\0'; }

// The rest of a line behind one blank, which must not be empty: a missing text has a meaning of its
// own in most kinds of lines.
bool rest_of_line(NumberCursor& cursor, const char* end, std::string_view* rest) {
  if (!cursor.blank() || cursor.at() >= end) return false;
  *rest = {cursor.at(), static_cast<size_t>(end - cursor.at())};
  return true;
}

// The mark of folded symbols, "m" as a word of its own.
bool optional_multiple(NumberCursor& cursor) {
  if (cursor.at()[0] != 'm' || cursor.at()[1] != ' ') return false;
  return cursor.chr('m') && cursor.blank();
}

bool blank_and_hex(NumberCursor& cursor, uint64_t* value) {
  return cursor.blank() && cursor.hex(value);
}

bool blank_and_hex(NumberCursor& cursor, long* value) {
  uint64_t number = 0;
  const bool read = blank_and_hex(cursor, &number);
  *value = static_cast<long>(number);
  return read;
}

bool blank_and_hex(NumberCursor& cursor, uint32_t* value) {
  uint64_t number = 0;
  const bool read = blank_and_hex(cursor, &number);
  *value = static_cast<uint32_t>(number);
  return read;
}

}  // namespace

bool QuickFile(const char* line, const char* end, FileFields* fields) {
  NumberCursor cursor(line + strlen("FILE "));
  return cursor.decimal(&fields->index) && rest_of_line(cursor, end, &fields->name);
}

bool QuickFunction(const char* line, const char* end, FunctionFields* fields) {
  NumberCursor cursor(line + strlen("FUNC "));
  fields->is_multiple = optional_multiple(cursor);
  fields->section = 0;
  if (!cursor.hex(&fields->address)) return false;
  if (cursor.chr(':')) {
    fields->section = static_cast<uint32_t>(fields->address);
    if (!cursor.hex(&fields->address)) return false;
  }
  return blank_and_hex(cursor, &fields->size) && blank_and_hex(cursor, &fields->stack_param_size) &&
         rest_of_line(cursor, end, &fields->name);
}

bool QuickLine(const char* line, const char** end, LineFields* fields) {
  NumberCursor cursor(line);
  if (!cursor.hex(&fields->address) || !blank_and_hex(cursor, &fields->size) || !cursor.blank() ||
      !cursor.decimal(&fields->line_number) || !cursor.blank() ||
      !cursor.decimal(&fields->source_file) || !is_line_end(*cursor.at())) {
    return false;
  }
  *end = cursor.at();
  return true;
}

bool QuickPublic(const char* line, const char* end, PublicFields* fields) {
  NumberCursor cursor(line + strlen("PUBLIC "));
  fields->is_multiple = optional_multiple(cursor);
  return cursor.hex(&fields->address) && blank_and_hex(cursor, &fields->stack_param_size) &&
         rest_of_line(cursor, end, &fields->name);
}

bool QuickInline(const char* line, const char* end, InlineFields* fields) {
  NumberCursor cursor(line + strlen("I "));
  return cursor.hex(&fields->address) && blank_and_hex(cursor, &fields->size) && cursor.blank() &&
         cursor.decimal(&fields->line_number) && cursor.blank() &&
         cursor.decimal(&fields->source_file) && blank_and_hex(cursor, &fields->caller) &&
         rest_of_line(cursor, end, &fields->name);
}

bool QuickStackWin(const char* line, const char* end, StackWinFields* fields) {
  constexpr std::string_view kPrefix = "STACK WIN ";
  if (strncmp(line, kPrefix.data(), kPrefix.size()) != 0) return false;
  NumberCursor cursor(line + kPrefix.size());
  uint64_t type = 0, has_program_string = 0;
  if (!cursor.hex(&type) || !blank_and_hex(cursor, &fields->rva) ||
      !blank_and_hex(cursor, &fields->code_size)) {
    return false;
  }
  uint32_t* const sizes[] = {&fields->prolog_size,    &fields->epilog_size,
                             &fields->parameter_size, &fields->saved_register_size,
                             &fields->local_size,     &fields->max_stack_size};
  for (uint32_t* size : sizes) {
    if (!blank_and_hex(cursor, size)) return false;
  }
  fields->type = static_cast<int>(type);
  fields->allocates_base_pointer = false;
  fields->program_string = {};
  if (static_cast<unsigned>(fields->type) >= WindowsFrameInfo::STACK_INFO_LAST) return false;
  if (!blank_and_hex(cursor, &has_program_string)) return false;
  if (has_program_string != 0) return rest_of_line(cursor, end, &fields->program_string);
  uint64_t allocates = 0;
  if (!blank_and_hex(cursor, &allocates)) return false;
  fields->allocates_base_pointer = allocates != 0;
  return cursor.at() == end;
}

bool QuickStackCFI(const char* line, const char* end, StackCFIFields* fields) {
  constexpr std::string_view kPrefix = "STACK CFI ", kInit = "INIT ";
  if (strncmp(line, kPrefix.data(), kPrefix.size()) != 0) return false;
  const char* at = line + kPrefix.size();
  fields->is_init = strncmp(at, kInit.data(), kInit.size()) == 0;
  if (fields->is_init) at += kInit.size();
  NumberCursor cursor(at);
  if (!cursor.hex(&fields->address)) return false;
  fields->size = 0;
  if (fields->is_init && !blank_and_hex(cursor, &fields->size)) return false;
  return rest_of_line(cursor, end, &fields->rules);
}

}  // namespace google_breakpad
