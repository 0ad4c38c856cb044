// The debug identifier: what a PDB and the image made with it have in common.

#pragma once

#include <cstdint>
#include <string>

#include "symforge/src/PDBHeaders.h"

namespace symforge_internal {

// The GUID's 32 digits in capitals, then the age in hexadecimal without padding.
std::string formatDebugId(const GUID& guid, uint32_t age);

}  // namespace symforge_internal
