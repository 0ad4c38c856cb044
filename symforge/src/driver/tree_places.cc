#include "symforge/src/driver/tree_places.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string_view>

#include "base/file_io.h"
#include "base/path_names.h"
#include "base/text_buffer.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "symforge/src/pe/image_identity.h"
#include "symforge/src/pe/pe_image.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

constexpr std::string_view kModuleLine = "\nMODULE ";
constexpr std::string_view kCodeIdLine = "\nINFO CODE_ID ";

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// A name without surrounding blanks, as it is in a MODULE line.
std::string trimmed(std::string_view name) {
  const size_t begin = name.find_first_not_of(' ');
  if (begin == std::string_view::npos) return {};
  return std::string(name.substr(begin, name.find_last_not_of(" \r") + 1 - begin));
}

// A text symbol file, read in blocks. Its identity usually is in the first one.
class TextScan {
 public:
  explicit TextScan(const std::string& path)
      : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}

  // False if there is no identity, or not with certainty: it can be followed by another one.
  bool read(sym_info& info) {
    if (!next_block() || !window_.starts_with(kModuleLine.substr(1))) return false;
    std::string lines = first_lines();
    while (window_.find(kCodeIdLine) == std::string::npos) {
      if (window_.find(kModuleLine) != std::string::npos) return false;
      if (at_end_) return sym_info_parse(lines.c_str(), info);
      if (!next_block()) return false;
    }
    const size_t code_id = window_.find(kCodeIdLine);
    const size_t module = window_.find(kModuleLine);
    const size_t end = window_.find('\n', code_id + 1);
    if (module < code_id || end == std::string::npos) return false;
    lines.append(window_, code_id + 1, end - code_id);
    return sym_info_parse(lines.c_str(), info) && !info.code_id.empty();
  }

 private:
  static constexpr size_t kBlock = 256 * 1024;

  std::string first_lines() const {
    return window_.substr(0, window_.find('\n') + 1);  // npos + 1 is 0
  }

  // Replaces the window by the next block, preceded by the end of the one before.
  bool next_block() {
    constexpr size_t kOverlap = kCodeIdLine.size();
    if (!file_.is_open()) return false;
    if (window_.size() > kOverlap) window_.erase(0, window_.size() - kOverlap);
    TextBuffer block;
    if (!read_file(file_.get(), block, kBlock)) return false;
    at_end_ = block.size() < kBlock;
    window_.append(block.view());
    return true;
  }

  const FileDescriptor file_;
  std::string window_;
  bool at_end_ = false;
};

// The string that a field of a SYMB image's header refers to. False for one that is not there, and
// for one that is no single word (`word`) or line: the lines of the text could then be different.
bool read_string(int file, uint64_t position, bool word, std::string& text) {
  constexpr size_t kLongest = 4096;
  char bytes[kLongest];
  const ssize_t got = pread(file, bytes, sizeof bytes, static_cast<off_t>(position));
  const std::string_view view(bytes, got < 0 ? 0 : static_cast<size_t>(got));
  const size_t end = view.find('\0');
  if (end == std::string_view::npos) return false;
  text = view.substr(0, end);
  return !text.empty() && std::none_of(text.begin(), text.end(), [word](char c) {
    return static_cast<unsigned char>(c) < ' ' || (word && c == ' ');
  });
}

// The places of a SYMB image in the place of a text symbol file.
TreePlaces places_of_symb(const std::string& path) {
  TreePlaces places;
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  symb_header_v1 header;
  if (!file.is_open() || pread(file.get(), &header, sizeof header, 0) != sizeof header) {
    return places;
  }
  std::string word;
  std::string name;
  const bool named = read_string(file.get(), header.os, /*word=*/true, word) &&
                     read_string(file.get(), header.arch, /*word=*/true, word) &&
                     read_string(file.get(), header.debug_id, /*word=*/true, places.debug_id) &&
                     read_string(file.get(), header.debug_file, /*word=*/false, name);
  if (!named) return places;
  places.debug_file = trimmed(name);
  if (header.code_id != 0) {
    if (!read_string(file.get(), header.code_id, /*word=*/true, word)) return places;
    places.code_ids.push_back(word);
  }
  places.known = !places.debug_file.empty();
  return places;
}

bool begins_like_symb(const std::string& path) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  TextBuffer begin;
  return file.is_open() && read_file(file.get(), begin, kSymbMagic.size()) &&
         begin.view() == kSymbMagic;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool is_regular(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

std::vector<std::string> TreePlaces::keys() const {
  std::vector<std::string> keys;
  if (debug_file.empty()) return keys;
  const std::string folder = lower(debug_file) + "/";
  keys.push_back(folder + lower(debug_id));
  for (const std::string& code_id : code_ids) keys.push_back(folder + lower(code_id));
  return keys;
}

TreePlaces places_of_text(const std::string& path) {
  TreePlaces places;
  sym_info info;
  if (!is_regular(path)) return places;
  if (begins_like_symb(path)) return places_of_symb(path);
  if (!TextScan(path).read(info)) return places;
  places.known = true;
  places.debug_file = info.debug_file;
  places.debug_id = info.debug_id;
  if (!info.code_id.empty()) places.code_ids.push_back(info.code_id);
  return places;
}

TreePlaces places_of_image(const std::string& path) {
  TreePlaces places;
  places.known = true;
  std::string debug_file;
  if (!pe64_debug_id(path.c_str(), places.debug_id, debug_file)) return places;
  places.debug_file = trimmed(last_component(debug_file, kAnySeparators));
  places.code_ids.push_back(pe_code_id(path.c_str()));
  places.known = !places.debug_file.empty() && !places.code_ids.front().empty();
  return places;
}

TreePlaces places_of_pdb(const std::string& path, const std::string& debug_id,
                         const std::string& exe, const std::vector<std::string>& candidates) {
  TreePlaces places;
  if (debug_id.empty()) return places;
  places.debug_file = trimmed(last_component(path));
  places.debug_id = debug_id;
  for (const std::string& image : exe.empty() ? candidates : std::vector<std::string>{exe}) {
    if (!exists(image)) continue;
    if (places.image.empty()) places.image = image;
    places.code_ids.push_back(pe_code_id(image.c_str()));
    if (places.code_ids.back().empty()) return places;
  }
  places.known = !places.debug_file.empty();
  return places;
}

}  // namespace symforge_internal
