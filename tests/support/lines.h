// Selects the lines of a text that begin with one of some words, or with none of them.

#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

inline std::string lines_that(std::string_view text, bool begin,
                              const std::vector<std::string_view>& words) {
  std::string kept;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n') + 1);
    text.remove_prefix(line.size());
    const bool begins = std::any_of(words.begin(), words.end(),
                                    [&](std::string_view word) { return line.starts_with(word); });
    if (begins == begin) kept += line;
  }
  return kept;
}

inline std::string lines_with(std::string_view text, const std::vector<std::string_view>& words) {
  return lines_that(text, true, words);
}
inline std::string lines_without(std::string_view text,
                                 const std::vector<std::string_view>& words) {
  return lines_that(text, false, words);
}

}  // namespace test_support
