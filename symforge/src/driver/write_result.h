// The right half of a conversion: a finished text goes to its place, as it is or as a SYMB image.

#pragma once

#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/symbol_text.h"

namespace symforge_internal {

// Writes the text, or the SYMB image made of it, to standard output or to its place in the tree.
// A target in the tree is replaced as a whole: readers see the old file or the new one.
//
// False: something failed. Everything is reported but two failures in default mode: no SYMB image
// could be made (in default mode the target is then an empty file, in standard mode it is
// unchanged), and a link from a code identifier that is there already or cannot be made.
bool write_result(SymbolText result, const ConversionOptions& options);

// The path of the link from a module's code identifier to its folder, or empty when none is due:
// for a module without code identifier, and one whose code file is no exe or dll.
std::string code_id_link(const sym_info& info, std::string_view tree);

}  // namespace symforge_internal
