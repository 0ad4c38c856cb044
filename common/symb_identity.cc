#include "common/symb_identity.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace symforge_internal {

namespace {

constexpr size_t kLineBuffer = 4096;

// The next field of a line that is split in place at blanks; null if there is none.
char* next_word(char** rest) { return strtok_r(nullptr, " ", rest); }

// Stores the fields that follow the line's keywords, as many as there are.
template <size_t kCount>
void store_words(char** rest, std::string* const (&fields)[kCount]) {
  for (std::string* field : fields) {
    const char* word = next_word(rest);
    if (word == nullptr) return;
    *field = word;
  }
}

// Parses a field that is a hexadecimal number and nothing else. The largest value, which means
// overflow, is rejected.
bool parse_number(const char* word, uint64_t* number) {
  char* end;
  *number = std::strtoull(word, &end, 16);
  return *number != UINT64_MAX && *end == '\0';
}

// "<number> virtaddr <address> rawsize <size>". The keywords are not checked.
bool parse_section(char** rest, symb_section* section) {
  char* words[5];
  for (char*& word : words) {
    word = next_word(rest);
    if (word == nullptr) return false;
  }
  uint64_t section_number;
  return parse_number(words[0], &section_number) && parse_number(words[2], &section->virtaddr) &&
         parse_number(words[4], &section->rawsize);
}

// Returns false for the first line that is not a header line.
bool parse_line(std::string_view line, SymbHeaderLines& info) {
  const bool module = line.starts_with("MODULE ");
  if (!module && !line.starts_with("INFO ")) return false;
  const bool code_id = line.starts_with("INFO CODE_ID ");
  const bool section = line.starts_with("INFO SECTION ");

  if (line.ends_with('\r')) line.remove_suffix(1);
  char linebuf[kLineBuffer];
  std::memcpy(linebuf, line.data(), line.size());
  linebuf[line.size()] = '\0';
  char* rest;
  strtok_r(linebuf, " ", &rest);
  if (module) {
    store_words(&rest, {&info.os, &info.arch, &info.debug_id, &info.debug_file});
    return true;
  }
  next_word(&rest);
  if (code_id) store_words(&rest, {&info.code_id, &info.code_file});
  symb_section parsed;
  if (section && parse_section(&rest, &parsed)) info.sections.push_back(parsed);
  return true;
}

}  // namespace

bool sym_info_parse(const char* sym_data, SymbHeaderLines& info) {
  while (const char* end = std::strchr(sym_data, '\n')) {
    const std::string_view line(sym_data, static_cast<size_t>(end - sym_data));
    if (line.size() < kLineBuffer && !parse_line(line, info)) break;
    sym_data = end + 1;
  }
  return !info.debug_id.empty() && !info.debug_file.empty();
}

}  // namespace symforge_internal
