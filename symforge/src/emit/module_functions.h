// A module's symbols: procedures and thunks become functions, inline sites are recorded with their
// function.

#pragma once

#include <span>

#include "symforge/src/emit/function_record.h"
#include "symforge/src/emit/inline_sites.h"
#include "symforge/src/pdb/module_stream.h"
#include "symforge/src/pdb/section_map.h"

namespace symforge_internal {

// Appends the functions of some modules to `functions`, in the order of their symbols, and records
// their inline sites in `sites`; null: inline sites are skipped. Throws what
// ModuleStream::forEachSymbol() throws, std::out_of_range for a section that does not exist. An
// inline site that follows no procedure fails an assertion.
void getModuleFunctions(std::span<const ModuleStream> modules, const SectionMap& sections,
                        InlineSites* sites, Functions& functions);

}  // namespace symforge_internal
