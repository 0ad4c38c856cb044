// Parsing of paths.

#pragma once

#include <string_view>

namespace symforge_internal {

inline constexpr std::string_view kUnixSeparators = "/";
inline constexpr std::string_view kAnySeparators = "/\\";  // for paths that may come from Windows

// The part after the last separator; the whole path when there is none.
inline std::string_view last_component(std::string_view path,
                                       std::string_view separators = kUnixSeparators) {
  return path.substr(path.find_last_of(separators) + 1);  // npos + 1 is 0
}

}  // namespace symforge_internal
