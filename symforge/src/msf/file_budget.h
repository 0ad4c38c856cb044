// FileBudget: what is left of the limits of one PDB. See base/limits.h.

#pragma once

#include <cstdint>

#include "base/limits.h"

namespace symforge_internal {

// Spent by everything that reads the file, so that a resource is limited for the file as a whole.
struct FileBudget {
  explicit FileBudget(uint64_t fileBytes);

  Allowance visited;        // limits::kVisitedBytes
  Allowance copied;         // limits::kCopiedBytes
  Allowance symbols;        // limits::kSymbolBytes
  Allowance functions;      // limits::kFunctions
  Allowance fileChecksums;  // limits::kFileChecksums
  Allowance typeVisits;     // limits::kTypeVisits
  Allowance typeText;       // limits::kTypeText
};

}  // namespace symforge_internal
