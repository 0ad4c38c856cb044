// FileBudget: what is left of the limits of one PDB. See base/limits.h.

#pragma once

#include <cstdint>

#include "base/limits.h"

namespace symforge_internal {

// Shared by everything that reads the file, so that a resource is limited for the file as a whole.
struct FileBudget {
  explicit FileBudget(uint64_t fileBytes);

  Allowance visited;        // limits::kVisitedBytes
  Allowance copied;         // limits::kCopiedBytes
  Allowance symbols;        // limits::kSymbolBytes
  Allowance functions;      // limits::kFunctions
  Allowance fileChecksums;  // limits::kFileChecksums
  Allowance typeVisits;     // limits::kTypeVisits
  Allowance typeText;       // limits::kTypeText
  Allowance movedParts;     // limits::kMovedParts
};

// While it exists, this thread spends from `own` whatever it reads, instead of from the budget of
// the file. For threads that read one file together.
class ThreadBudget {
 public:
  explicit ThreadBudget(FileBudget& own) { m_current = &own; }
  ~ThreadBudget() { m_current = nullptr; }
  ThreadBudget(const ThreadBudget&) = delete;
  ThreadBudget& operator=(const ThreadBudget&) = delete;

  // What this thread spends from; `ofFile` can be null: no limits.
  static FileBudget* of(FileBudget* ofFile) { return m_current != nullptr ? m_current : ofFile; }

 private:
  static inline constinit thread_local FileBudget* m_current = nullptr;
};

}  // namespace symforge_internal
