// WarningLimit: keeps a damaged file from flooding standard error with one kind of warning.

#pragma once

#include <cstdint>

namespace symforge_internal {

// The warnings of one kind of one conversion.
class WarningLimit {
 public:
  // Writes `line`, which ends in a line feed, to standard error. After limits::kWarnings lines one
  // line says that further ones are left out, and they are.
  void put(const char* line);

 private:
  uint32_t count_ = 0;
};

}  // namespace symforge_internal
