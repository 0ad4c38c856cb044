// Verification of symbol files, without a conversion.

#pragma once

#include <string>
#include <vector>

namespace symforge_internal {

// Reads each file, a text symbol file or a SYMB file, completely, and writes what it holds and what
// is wrong with it as a line of JSON to standard output. `against`: a PDB or an image whose
// identifiers the symbol files must have, or null.
//
// The exit status: 1 if anything is malformed, is not a symbol file, cannot be read or has other
// identifiers, or if the output cannot be written.
int check_files(const std::vector<std::string>& paths, const char* against);

}  // namespace symforge_internal
