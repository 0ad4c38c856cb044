// A PE without its PDB: the symbol file in the tree that its debug record names.

#pragma once

#include "base/text_buffer.h"

namespace symforge_internal {

// Appends to `out`, as text, the symbol file that the tree `sympath` (null: none) has for the
// 64-bit image `exe`: the text file, or else the SYMB file. Throws pdb_exception for a file that is
// no such image, when there is no symbol file or it cannot be read, and when it names an image
// already.
void findSymbolFileOfPe(const char* exe, const char* sympath, TextBuffer& out);

}  // namespace symforge_internal
