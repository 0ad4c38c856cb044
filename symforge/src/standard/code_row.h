// CodeRow: a stretch of code and where it was written. Line tables and the ranges of inlined calls
// are made of them.

#pragma once

#include <cstdint>

namespace symforge_internal {

// The file of code whose place is not known.
constexpr uint32_t kNoFile = 0;

// Where code was written.
struct SourcePlace {
  uint32_t file = kNoFile;  // as returned by FileNumbers::find()
  uint32_t line = 0;

  bool known() const { return file != kNoFile; }
  bool operator==(const SourcePlace&) const = default;
};

// `start` and `end` (one past the last byte) are bytes from the start of the function.
struct CodeRow {
  uint32_t start = 0;
  uint32_t end = 0;
  SourcePlace place;
};

}  // namespace symforge_internal
