// Turning decorated linker names of Windows into text, by way of a library that may be installed.

#pragma once

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

// Replaces a NUL-terminated name by its text, owned by the handle. Leaves it as it is when there is
// no library or it cannot read the name. The library is looked for at the first call; one that is
// there but does not load ends the process. Not for use by several threads at once.
void undname(DataPtr<char>& mangled);

// Looks for the library and loads it now, for a process that will not be able to later. One that
// does not load ends the process at the first call of undname(), as without this.
void load_demangler();

}  // namespace symforge_internal
