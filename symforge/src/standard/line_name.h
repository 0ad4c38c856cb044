// Names at the end of a line. They come from files: a line end inside of one would begin a line of
// its own.

#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "base/printable.h"

namespace symforge_internal {

// The name itself, or else its printable form in `storage`.
inline std::string_view lineName(std::string_view name, std::string& storage) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20; };
  if (std::none_of(name.begin(), name.end(), isControl)) return name;
  storage = printable(name);
  return storage;
}

}  // namespace symforge_internal
