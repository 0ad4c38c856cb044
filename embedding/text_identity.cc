#include "embedding/text_identity.h"

#include <algorithm>

namespace symforge_internal {

namespace {

// Removes the next line from `text`, and the line ends before it.
std::string_view take_line(std::string_view& text) {
  constexpr std::string_view kLineEnds = "\r\n";
  text.remove_prefix(std::min(text.find_first_not_of(kLineEnds), text.size()));
  const std::string_view line = text.substr(0, text.find_first_of(kLineEnds));
  text.remove_prefix(line.size());
  return line;
}

std::string_view without_blanks(std::string_view text) {
  const size_t begin = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

// Removes the next word of a line; empty if there is none.
std::string_view take_word(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  const std::string_view word = line.substr(0, line.find(' '));
  line.remove_prefix(word.size());
  return word;
}

}  // namespace

bool read_identity(std::string_view text, TextIdentity& identity) {
  text = text.substr(0, text.find('\0'));
  std::string_view line = take_line(text);
  if (take_word(line) != "MODULE") return false;
  identity.operating_system = take_word(line);
  identity.architecture = take_word(line);
  identity.debug_identifier = take_word(line);
  identity.debug_file = without_blanks(line);
  for (line = take_line(text); take_word(line) == "INFO"; line = take_line(text)) {
    if (take_word(line) != "CODE_ID" || !identity.code_identifier.empty()) continue;
    identity.code_identifier = take_word(line);
    identity.code_file = without_blanks(line);
  }
  return !identity.debug_file.empty();
}

}  // namespace symforge_internal
