#include "processor/symbol_parse_helper.h"

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "processor/tokenize.h"

namespace google_breakpad {

namespace {

constexpr char kWhitespace[] = " \r\n";

// Stands in for a missing name. Never written, but handed out like a place in a line.
char omitted[] = "<omitted>";

// Tokenize for a line that may begin with `optional_field`, which `max_tokens` counts. A missing
// last field is no error: it becomes "<omitted>".
bool TokenizeWithOptionalField(char* line, const char* optional_field, const char* separators,
                               int max_tokens, std::vector<char*>* tokens) {
  if (!Tokenize(line, separators, 2, tokens)) return false;
  const bool has_optional = strcmp(tokens->front(), optional_field) == 0;
  const int num_tokens = max_tokens - (has_optional ? 1 : 2);

  char* rest = tokens->back();
  tokens->pop_back();
  std::vector<char*> rest_tokens;
  const int missing = num_tokens - TokenizeTry(rest, separators, num_tokens, &rest_tokens);
  if (missing >= 2) return false;
  tokens->insert(tokens->end(), rest_tokens.begin(), rest_tokens.end());
  if (missing == 1) tokens->push_back(omitted);
  return true;
}

// An address or size, which may be anything but the largest value (also what an overflow gives).
bool ParseHex64(char* token, uint64_t* value) {
  char* after = nullptr;
  *value = strtoull(token, &after, 16);
  return SymbolParseHelper::IsValidAfterNumber(after) && *value != ULLONG_MAX;
}

// A number that may be neither negative nor the largest value.
bool ParseCount(char* token, int base, long* value) {
  char* after = nullptr;
  *value = strtol(token, &after, base);
  return SymbolParseHelper::IsValidAfterNumber(after) && *value >= 0 && *value != LONG_MAX;
}

// A number of an inline line: only one that is out of range is refused.
bool ParseLenient(char* token, int base, uint64_t* value) {
  errno = 0;
  *value = strtoull(token, nullptr, base);
  return *value != ULLONG_MAX || errno != ERANGE;
}

}  // namespace

bool SymbolParseHelper::IsValidAfterNumber(char* after_number) {
  return after_number != nullptr && strchr(kWhitespace, *after_number) != nullptr;
}

bool SymbolParseHelper::ParseFile(char* file_line, long* index, char** filename) {
  assert(strncmp(file_line, "FILE ", 5) == 0);
  std::vector<char*> tokens;
  if (!Tokenize(file_line + 5, kWhitespace, 2, &tokens)) return false;
  if (!ParseCount(tokens[0], 10, index)) return false;
  *filename = tokens[1];
  return true;
}

bool SymbolParseHelper::ParseFunction(char* function_line, bool* is_multiple, uint32_t* section,
                                      uint64_t* address, uint64_t* size, long* stack_param_size,
                                      char** name) {
  assert(strncmp(function_line, "FUNC ", 5) == 0);
  std::vector<char*> tokens;
  if (!TokenizeWithOptionalField(function_line + 5, "m", kWhitespace, 5, &tokens)) return false;
  *is_multiple = strcmp(tokens[0], "m") == 0;
  size_t next = *is_multiple ? 1 : 0;

  char* address_token = tokens[next++];
  char* after = nullptr;
  const uint64_t before_colon = strtoull(address_token, &after, 16);
  *section = 0;
  if (*after == ':') {
    if (before_colon == ULLONG_MAX) return false;
    *section = static_cast<uint32_t>(before_colon);
    address_token = after + 1;
  }
  if (!ParseHex64(address_token, address)) return false;
  if (!ParseHex64(tokens[next++], size)) return false;
  if (!ParseCount(tokens[next++], 16, stack_param_size)) return false;
  *name = tokens[next];
  return true;
}

bool SymbolParseHelper::ParseLine(char* line_line, uint64_t* address, uint64_t* size,
                                  long* line_number, long* source_file) {
  std::vector<char*> tokens;
  if (!Tokenize(line_line, kWhitespace, 4, &tokens)) return false;
  return ParseHex64(tokens[0], address) && ParseHex64(tokens[1], size) &&
         ParseCount(tokens[2], 10, line_number) && ParseCount(tokens[3], 10, source_file);
}

bool SymbolParseHelper::ParsePublicSymbol(char* public_line, bool* is_multiple, uint64_t* address,
                                          long* stack_param_size, char** name) {
  assert(strncmp(public_line, "PUBLIC ", 7) == 0);
  std::vector<char*> tokens;
  if (!TokenizeWithOptionalField(public_line + 7, "m", kWhitespace, 4, &tokens)) return false;
  *is_multiple = strcmp(tokens[0], "m") == 0;
  size_t next = *is_multiple ? 1 : 0;

  if (!ParseHex64(tokens[next++], address)) return false;
  if (!ParseCount(tokens[next++], 16, stack_param_size)) return false;
  *name = tokens[next];
  return true;
}

bool SymbolParseHelper::ParseInlineFunction(char* inline_line, uint64_t* address, uint64_t* size,
                                            long* line_number, long* source_file, uint32_t* caller,
                                            char** name) {
  char* position = nullptr;
  const char* word = strtok_r(inline_line, " ", &position);
  if (word == nullptr || word[0] != 'I') return false;
  char* tokens[5];
  for (char*& token : tokens) {
    token = strtok_r(nullptr, " ", &position);
    if (token == nullptr) return false;
  }

  uint64_t values[5];
  constexpr int kBases[5] = {16, 16, 10, 10, 16};
  for (int i = 0; i < 5; ++i) {
    if (!ParseLenient(tokens[i], kBases[i], &values[i])) return false;
  }
  *address = values[0];
  *size = values[1];
  *line_number = static_cast<long>(values[2]);
  *source_file = static_cast<long>(values[3]);
  *caller = static_cast<uint32_t>(values[4]);
  // Where the splitting would go on: behind the fifth number and one blank, or at the line's end.
  *name = position;
  return true;
}

}  // namespace google_breakpad
