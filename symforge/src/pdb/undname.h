// Conversion of decorated linker names of Windows to text, by an optional library.

#pragma once

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

// Replaces a NUL-terminated name by its text, owned by the handle. The name is unchanged when there
// is no library or it cannot decode the name. The library is searched at the first call; one that
// exists but does not load ends the process. Not for use by several threads at once.
void undname(DataPtr<char>& mangled);

// Loads the library now, for a process that cannot do so later. One that does not load ends the
// process only at the first call of undname().
void load_demangler();

}  // namespace symforge_internal
