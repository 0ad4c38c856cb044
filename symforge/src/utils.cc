#include "symforge/src/utils.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace {

constexpr size_t kLongestIdentityLine = 4095;  // bytes without the line feed
constexpr std::string_view kModule = "MODULE ";
constexpr std::string_view kCodeId = "INFO CODE_ID ";

// Takes the next word of `line`; a run of blanks is one separator. False when none is left.
bool take_word(std::string_view& line, std::string_view& word) {
  const size_t begin = line.find_first_not_of(' ');
  if (begin == std::string_view::npos) return false;
  const size_t end = std::min(line.find(' ', begin), line.size());
  word = line.substr(begin, end - begin);
  line.remove_prefix(end);
  return true;
}

// Takes the next word into `field`, which stays as it is when no word is left.
bool take_field(std::string_view& line, std::string& field) {
  std::string_view word;
  if (!take_word(line, word)) return false;
  field = word;
  return true;
}

std::string_view without_outer_blanks(std::string_view text) {
  const size_t begin = text.find_first_not_of(' ');
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

void parse_module(std::string_view line, sym_info& info) {
  std::string_view keyword;
  take_word(line, keyword);
  if (take_field(line, info.os) && take_field(line, info.arch) && take_field(line, info.debug_id)) {
    info.debug_file = without_outer_blanks(line);
  }
}

void parse_code_id(std::string_view line, sym_info& info) {
  std::string_view keyword;
  take_word(line, keyword);
  take_word(line, keyword);
  if (take_field(line, info.code_id)) info.code_file = without_outer_blanks(line);
}

// Takes the next line that ends in a line feed off `text`, without the line feed. A text without
// an INFO CODE_ID line is scanned to its end, so lines of no interest cost one memchr each.
bool take_line(std::string_view& text, std::string_view& line) {
  const size_t end = text.find('\n');
  if (end == std::string_view::npos) return false;
  line = text.substr(0, end);
  text.remove_prefix(end + 1);
  return true;
}

bool is_valid(const sym_info& info) { return !info.debug_id.empty() && !info.debug_file.empty(); }

}  // namespace

bool sym_info_parse(const char* data, sym_info& info) {
  std::string_view text(data);
  std::string_view line;
  while (take_line(text, line)) {
    const bool module = line.starts_with(kModule);
    if (!module && !line.starts_with(kCodeId)) continue;
    if (line.size() > kLongestIdentityLine) return false;
    line = line.substr(0, line.find_last_not_of('\r') + 1);
    if (!module) {
      parse_code_id(line, info);
      break;
    }
    parse_module(line, info);
  }
  return is_valid(info);
}

bool is_tree_component(std::string_view name) {
  return name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

bool ensure_directory(const char* path) { return mkdir(path, 0700) == 0 || errno == EEXIST; }

bool synthesize_sym_path(const char* sym_path, const char* debug_file, const char* debug_id,
                         bool binary, bool create, std::string& path) {
  if (create && !(is_tree_component(debug_file) && is_tree_component(debug_id))) return false;

  path.assign(sym_path).append("/").append(debug_file);
  if (create && !ensure_directory(path.c_str())) return false;
  path.append("/").append(debug_id);
  if (create && !ensure_directory(path.c_str())) return false;

  std::string_view stem(debug_file);
  if (stem.size() > 4 && stem.ends_with(".pdb")) stem.remove_suffix(4);
  path.append("/").append(stem).append(binary ? ".symb" : ".sym");
  return true;
}

char* strupper(char* str) {
  if (str == nullptr || *str == '\0') return str;
  for (char* at = str + 1; *at != '\0'; ++at) {
    *at = static_cast<char>(std::toupper(static_cast<unsigned char>(*at)));
  }
  return str;
}
