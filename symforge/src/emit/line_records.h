// Line subsections: finds the function and the file of each block of lines.

#pragma once

#include <cstddef>

#include "symforge/src/emit/function_list.h"
#include "symforge/src/pdb/module_stream.h"
#include "symforge/src/pdb/section_map.h"
#include "symforge/src/pdb/source_files.h"

namespace symforge_internal {

// Attaches the line blocks of a module, which is at position `module_index` of the list that
// `files` was gathered from, to functions of the sorted list that `index` was made of. Lines are
// not copied. Throws what ModuleStream::readModule() throws, std::out_of_range for a section that
// does not exist; the blocks before the fault are attached.
void resolveFunctionLines(const ModuleStream& module, size_t module_index,
                          const SectionMap& sections, const SourceFiles& files,
                          Functions& functions, FunctionIndex& index);

}  // namespace symforge_internal
