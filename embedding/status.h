// Errors of the C interface: codes, the text of the last one, and the border that no exception
// crosses.

#pragma once

#include <new>

#include "symforge/symforge.h"

namespace symforge_internal {

// Sets the text of symforge_last_error() and returns `status`. Does not allocate. A text that is
// longer than symforge_last_error() allows is cut.
[[gnu::format(printf, 2, 3)]] symforge_status fail(symforge_status status, const char* format, ...);

// Runs the body of an operation that returns a status, and turns exceptions into codes.
template <typename Body>
symforge_status guarded(Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return fail(SYMFORGE_ERROR_MEMORY, "out of memory");
  } catch (...) {
    return fail(SYMFORGE_ERROR_INTERNAL, "unexpected exception");
  }
}

}  // namespace symforge_internal
