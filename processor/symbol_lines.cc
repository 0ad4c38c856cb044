#include "processor/symbol_lines.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "processor/symbol_parse_helper.h"
#include "processor/windows_frame_info.h"

namespace google_breakpad {

bool ReadFile(char* line, char* end, FileFields* fields) {
  *end = '\0';
  char* name = nullptr;
  if (!SymbolParseHelper::ParseFile(line, &fields->index, &name)) return false;
  fields->name = name;
  return true;
}

bool ReadFunction(char* line, char* end, FunctionFields* fields) {
  *end = '\0';
  char* name = nullptr;
  if (!SymbolParseHelper::ParseFunction(line, &fields->is_multiple, &fields->section,
                                        &fields->address, &fields->size, &fields->stack_param_size,
                                        &name)) {
    return false;
  }
  fields->name = name;
  return true;
}

bool ReadLine(char* line, char* end, LineFields* fields) {
  *end = '\0';
  return SymbolParseHelper::ParseLine(line, &fields->address, &fields->size, &fields->line_number,
                                      &fields->source_file);
}

bool ReadPublic(char* line, char* end, PublicFields* fields) {
  *end = '\0';
  char* name = nullptr;
  if (!SymbolParseHelper::ParsePublicSymbol(line, &fields->is_multiple, &fields->address,
                                            &fields->stack_param_size, &name)) {
    return false;
  }
  fields->name = name;
  return true;
}

bool ReadInline(char* line, char* end, InlineFields* fields) {
  *end = '\0';
  char* name = nullptr;
  if (!SymbolParseHelper::ParseInlineFunction(line, &fields->address, &fields->size,
                                              &fields->line_number, &fields->source_file,
                                              &fields->caller, &name)) {
    return false;
  }
  fields->name = name;
  return true;
}

void SplitStackLine(char* line, char* end, char** platform, char** stack_info) {
  *end = '\0';
  *platform = line + strlen("STACK ");
  *platform += strspn(*platform, " ");
  char* word_end = *platform + strcspn(*platform, " \r\n");
  // A line that ends with the word has an empty rest; the next line is never touched.
  *stack_info = word_end == end ? end : word_end + 1;
  *word_end = '\0';
}

bool ReadStackWin(char* stack_info, char* end, StackWinFields* fields) {
  *end = '\0';
  const std::unique_ptr<WindowsFrameInfo> info(
      WindowsFrameInfo::ParseFromString(stack_info, fields->type, fields->rva, fields->code_size));
  if (!info) return false;
  fields->prolog_size = info->prolog_size;
  fields->epilog_size = info->epilog_size;
  fields->parameter_size = info->parameter_size;
  fields->saved_register_size = info->saved_register_size;
  fields->local_size = info->local_size;
  fields->max_stack_size = info->max_stack_size;
  fields->allocates_base_pointer = info->allocates_base_pointer;
  // The program is the last thing on the line, so the same text stands at the end of the line.
  const size_t length = info->program_string.size();
  fields->program_string = {end - length, length};
  return true;
}

bool ReadStackCFI(char* stack_info, char* end, StackCFIFields* fields) {
  *end = '\0';
  constexpr char kBlanks[] = " \r\n";
  char* position = nullptr;
  const char* word = strtok_r(stack_info, kBlanks, &position);
  if (word == nullptr) return false;
  fields->is_init = strcmp(word, "INIT") == 0;
  const char* address = fields->is_init ? strtok_r(nullptr, kBlanks, &position) : word;
  if (address == nullptr) return false;
  const char* size = fields->is_init ? strtok_r(nullptr, kBlanks, &position) : "0";
  if (size == nullptr) return false;
  const char* rules = strtok_r(nullptr, "\r\n", &position);
  if (rules == nullptr) return false;
  fields->address = strtoul(address, nullptr, 16);
  fields->size = strtoul(size, nullptr, 16);
  fields->rules = rules;
  return true;
}

}  // namespace google_breakpad
