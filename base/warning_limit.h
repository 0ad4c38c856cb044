// WarningLimit: prevents a damaged file from flooding standard error with one kind of warning.

#pragma once

#include <cstdint>

namespace symforge_internal {

// Counts the warnings of one kind in one conversion.
class WarningLimit {
 public:
  // Writes `line`, which ends with a line feed, to standard error. After limits::kWarnings lines,
  // prints once that further ones are omitted, and omits them.
  void put(const char* line);

 private:
  uint32_t count_ = 0;
};

}  // namespace symforge_internal
