// Turning decorated linker names of Windows into text, by way of a library that may be installed.

#pragma once

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

// Replaces a NUL-terminated name by its text, owned by the handle. Leaves it as it is when there is
// no library or it cannot read the name. The library is looked for at the first call; one that is
// there but does not load ends the process. Not for use by several threads at once.
void undname(DataPtr<char>& mangled);

}  // namespace symforge_internal
