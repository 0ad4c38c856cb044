// PDBs whose type records are in other files.

#pragma once

#include "symforge/src/msf/msf_file.h"
#include "symforge/src/pdb/info_stream.h"

namespace symforge_internal {

// The feature of the info stream that /DEBUG:FASTLINK sets, "MINI".
inline constexpr uint32_t kMinimalDebugInfo = 0x494E494D;

// Whether a type record of that leaf names the file that has the types.
bool isTypeServer(uint16_t leaf);

// Throws pdb_refusal for a PDB whose types, with or without its symbols, are in other files: the
// first type record names a type server (an object file's /Zi), or the linker left everything in
// the object files (/DEBUG:FASTLINK). Nothing else is thrown; damage is left to the type table.
// `info`: the named streams were read.
void refuseForeignTypes(const MsfFile& file, const InfoStream& info);

}  // namespace symforge_internal
