// The debug identifier, which a PDB and its image share.

#pragma once

#include <cstdint>
#include <string>

#include "symforge/src/PDBHeaders.h"

namespace symforge_internal {

// The GUID's 32 digits in capitals, then the age in hexadecimal without padding.
std::string formatDebugId(const GUID& guid, uint32_t age);

}  // namespace symforge_internal
