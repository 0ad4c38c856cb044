// A PE without its PDB: the symbol file in the tree that its debug record names.

#pragma once

#include "base/text_buffer.h"
#include "common/symb_text.h"

namespace symforge_internal {

// Appends to `out`, as text, the symbol file that the tree `sympath` (null: none) has for the image
// `exe`: the text file, or else the SYMB file in `dialect`. Throws pdb_exception for a file that is
// no image with a debug identifier, when there is no symbol file or it cannot be read, and when it
// names an image already; for a 32-bit image always with the same message.
void findSymbolFileOfPe(const char* exe, const char* sympath, TextDialect dialect, TextBuffer& out);

}  // namespace symforge_internal
