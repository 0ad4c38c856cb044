// The size of a function's parameters on the stack, in bytes.

#pragma once

#include <cstddef>

#include "symforge/src/emit/function_record.h"
#include "symforge/src/pdb/frame_tables.h"
#include "symforge/src/pdb/public_functions.h"

namespace symforge_internal {

// Takes it from a decorated name, as of a public function; null when there is none. False when the
// name does not carry it.
bool decoratedParamSize(const PublicFunction* global, uint32_t& paramSize,
                        Allowance* visited = nullptr);

// Takes it from the public name at the function's RVA, null when there is none. False, and `func`
// unchanged, when the name does not carry it. The name's length is spent from `visited`; null: no
// limit.
bool updateParamSize(FunctionRecord& func, const PublicFunction* global,
                     Allowance* visited = nullptr);

// Takes each function's size of parameters from the frame data of exactly its code, or else from
// its public name, and marks the public functions that a function covers. Functions in none of the
// image's `sectionCount` sections are skipped.
void resolveParamSizes(Functions& functions, PublicFunctions& globals, const FrameTables& frames,
                       size_t sectionCount);

}  // namespace symforge_internal
