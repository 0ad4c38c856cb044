// Which rights one conversion needs.

#pragma once

#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/sandbox.h"
#include "symforge/src/driver/symbol_text.h"

namespace symforge_internal {

// The inputs can be read and the tree can be written. A debug file's folder in the tree that is a
// link to a folder elsewhere can be written too.
SandboxRights sandbox_rights(const OpenedInput& opened, const ConversionOptions& options);

// Opens and loads what a conversion in its sandbox cannot: the demangling library, and the time
// zone for messages to the system log. To be called before enter_sandbox().
void prepare_for_sandbox(const OpenedInput& opened, const ConversionOptions& options);

}  // namespace symforge_internal
