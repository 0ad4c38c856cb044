// Names at the end of a line. They come from files: a line end inside of one would begin a line of
// its own.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/printable.h"

namespace symforge_internal {

// Whether a byte is below 0x20. Eight bytes are looked at together; where one of them might be, the
// rest is looked at byte by byte.
inline bool hasControl(std::string_view text) {
  constexpr uint64_t kBlanks = 0x2020202020202020;
  constexpr uint64_t kTopBits = 0x8080808080808080;
  const char* at = text.data();
  size_t left = text.size();
  for (; left >= sizeof(uint64_t); at += sizeof(uint64_t), left -= sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, at, sizeof(word));
    if (((word - kBlanks) & ~word & kTopBits) != 0) break;
  }
  return std::any_of(at, at + left, [](char c) { return static_cast<unsigned char>(c) < 0x20; });
}

// The name itself, or else its printable form in `storage`.
inline std::string_view lineName(std::string_view name, std::string& storage) {
  if (!hasControl(name)) return name;
  storage = printable(name);
  return storage;
}

}  // namespace symforge_internal
