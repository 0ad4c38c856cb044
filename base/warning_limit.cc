#include "base/warning_limit.h"

#include <cstdio>

#include "base/limits.h"

namespace symforge_internal {

void WarningLimit::put(const char* line) {
  if (count_ > limits::kWarnings) return;
  ++count_;
  std::fputs(count_ > limits::kWarnings ? "Further warnings of this kind are left out\n" : line,
             stderr);
}

}  // namespace symforge_internal
