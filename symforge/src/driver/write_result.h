// The right half of a conversion: writes the finished text to its place, as text or as a SYMB
// image.

#pragma once

#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/symbol_text.h"

namespace symforge_internal {

// What was written.
struct WrittenResult {
  std::string target;  // its path; "-" for standard output
  uint64_t bytes = 0;
  sym_info identity;
};

// Writes the text, or the SYMB image made of it, to standard output or to its place in the tree.
// A target in the tree is replaced as a whole: readers see the old file or the new one.
//
// False after a failure. All failures are reported except two in default mode: no SYMB image could
// be made (in default mode the target is then an empty file, in standard mode it is unchanged), and
// a link from a code identifier that exists or cannot be made.
// `written`, unless null, is set for a result that was written.
bool write_result(SymbolText result, const ConversionOptions& options,
                  WrittenResult* written = nullptr);

// The path of the link from a module's code identifier to its folder, or empty when none is due:
// for a module without code identifier, and one whose code file is not an exe or dll.
std::string code_id_link(const sym_info& info, std::string_view tree);

}  // namespace symforge_internal
