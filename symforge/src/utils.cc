#include "symforge/src/utils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "base/file_io.h"

namespace {

constexpr size_t kLongestIdentityLine = 4095;  // bytes without the line feed
constexpr std::string_view kModule = "MODULE ";
constexpr std::string_view kCodeId = "INFO CODE_ID ";

// Removes the next word from `line`; a run of blanks is one separator. False when none is left.
bool take_word(std::string_view& line, std::string_view& word) {
  const size_t begin = line.find_first_not_of(' ');
  if (begin == std::string_view::npos) return false;
  const size_t end = std::min(line.find(' ', begin), line.size());
  word = line.substr(begin, end - begin);
  line.remove_prefix(end);
  return true;
}

// Removes the next word into `field`, which is unchanged when no word is left.
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

// Removes the next line that ends in a line feed from `text`, without the line feed. A text without
// an INFO CODE_ID line is scanned to its end, so other lines cost one memchr each.
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

bool synthesize_sym_path(const char* sym_path, const char* debug_file, const char* debug_id,
                         bool binary, bool create, std::string& path) {
  using namespace symforge_internal;
  constexpr mode_t kMode = 0700;
  if (create && make_tree_folders(sym_path, debug_file, debug_id, kMode) != TreeFolders::kMade) {
    return false;
  }
  path = tree_path(sym_path, debug_file, debug_id, binary);
  return true;
}

char* strupper(char* str) {
  if (str == nullptr || *str == '\0') return str;
  for (char* at = str + 1; *at != '\0'; ++at) {
    *at = static_cast<char>(std::toupper(static_cast<unsigned char>(*at)));
  }
  return str;
}

namespace symforge_internal {

namespace {

// Whether a folder, a file or a link to one of them has this name; false for a dangling link.
bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Makes one folder. An existing entry of its name is accepted.
bool ensure_directory(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) == 0) return true;
  const int error = errno;
  if (error == EEXIST && exists(path)) return true;
  errno = error;
  return false;
}

// Whether a link has the form of links from code identifiers: to an entry of the same folder.
bool leads_to_sibling(const std::string& link) { return is_tree_component(link_target(link)); }

// Makes the folder of an identifier. A link to a sibling in its place is removed.
bool ensure_own_directory(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) == 0) return true;
  if (errno != EEXIST) return false;
  if (!is_link(path)) return true;
  if (!leads_to_sibling(path) || unlink(path.c_str()) != 0) {
    errno = ELOOP;
    return false;
  }
  return (mkdir(path.c_str(), mode) == 0 || errno == EEXIST) && !is_link(path);
}

}  // namespace

bool is_link(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

std::string existing_tree_path(std::string_view root, std::string_view debug_file,
                               std::string_view debug_id, bool binary) {
  if (!is_tree_component(debug_file) || !is_tree_component(debug_id)) return {};
  std::string path = tree_path(root, debug_file, debug_id, binary);
  if (is_link(path.substr(0, path.rfind('/'))) || !exists(path)) return {};
  return path;
}

TreeFolders make_tree_folders(const std::string& root, std::string_view debug_file,
                              std::string_view debug_id, mode_t mode) {
  errno = EINVAL;
  if (!is_tree_component(debug_file)) return TreeFolders::kNoFileFolder;
  if (!is_tree_component(debug_id)) return TreeFolders::kNoIdFolder;
  std::string path = std::string(root).append("/").append(debug_file);
  if (!ensure_directory(path, mode)) return TreeFolders::kNoFileFolder;
  path.append("/").append(debug_id);
  return ensure_own_directory(path, mode) ? TreeFolders::kMade : TreeFolders::kNoIdFolder;
}

}  // namespace symforge_internal
