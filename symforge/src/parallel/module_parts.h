// ModuleParts: the modules of a PDB in runs of about equal size, for workers.

#pragma once

#include <cstddef>
#include <vector>

#include "symforge/src/pdb/module_stream.h"

namespace symforge_internal {

struct ModulePart {
  size_t first = 0;  // positions in the list of modules
  size_t end = 0;
};

// In the order of the list; several for each of `workers` workers.
std::vector<ModulePart> moduleParts(const ModuleStreams& modules, unsigned workers);

}  // namespace symforge_internal
