// Identities of files that are recognised but not converted, from their first bytes. All results
// are empty if the bytes do not have them. Sources of the formats: ECMA-335, partition II, 24.2
// (metadata root), and the Portable PDB format of the .NET documentation; the ELF and Mach-O
// headers.

#pragma once

#include <string>
#include <string_view>

namespace symforge_internal {

// The debug identifier that the image of a portable PDB has: the GUID of its #Pdb stream, and
// age 1. `start`: the metadata root and the stream, which come first.
std::string portable_pdb_id(std::string_view start);

// Machines, by the names that MODULE lines have.
std::string elf_architecture(std::string_view start);
std::string mach_o_architecture(std::string_view start);

}  // namespace symforge_internal
