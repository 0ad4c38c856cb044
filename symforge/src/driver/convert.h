// One conversion: whatever the input is, it is brought to the text of a Breakpad symbol file, and
// that text is written as it is or as a SYMB image, to standard output or into a symbol tree.
//
// What goes wrong is reported as messages.h says. Paths are borrowed. Not for use by several
// threads at once; any number of processes may work on one tree.

#pragma once

#include <string>
#include <string_view>

#include "base/text_buffer.h"
#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/utils.h"

// Whether a PDB's inline sites are converted. To be set before the first conversion.
extern bool do_inline;

// Converts one input in default mode. The first bytes of `pdb_path` decide what it is: a text
// symbol file ("MODULE"), of which what precedes its first byte 0xFF is taken, a SYMB image
// ("SYMB"), or else a PDB, for which `exe_path` may name the PE. With `pdb_path` null the PE
// `exe_path` is joined with the symbol file that is stored in the tree for it. `sym_path` is the
// root of the symbol tree, or null for standard output.
//
// False: the input could not be converted, and a message was logged. A result that could not be
// written is logged but is no failure of the conversion: true. Errors of the standard library
// (bad_alloc, range checks) are not caught and end the process; see PDBParser for what else does.
bool symforge(const char* pdb_path, const char* exe_path, const char* sym_path, bool binary_output);

// Writes a finished symbol text to its place, in default mode. Text goes out whole; the identity
// of the file and the SYMB image are made from what precedes the first NUL in it. When no image
// can be made of the text the target becomes an empty file. False: something failed; see
// write_result(). The first form takes the text over, the second one works on a copy.
bool symforge_sym(symforge_internal::TextBuffer symbol_data, const char* sym_path,
                  bool binary_output);
bool symforge_sym(std::string_view symbol_data, const char* sym_path, bool binary_output);

// Makes the link from the code identifier to the build's folder, for modules whose code file is an
// exe or a dll. True when no link was due or it was made; false, silently, when the system refuses
// it, so also when it is there already.
bool pdb_create_codeid_link(const sym_info& info, const char* sym_path);

// Whether `s1` ends in `s2`, case-sensitive.
bool string_ends_with(const std::string& s1, const std::string& s2);

namespace symforge_internal {

// Converts one input in the mode that the options select, and reports what fails. Default mode:
// see symforge(). Standard mode: true when the result was written too, and no exception leaves.
bool convert(const ConversionInput& input, const ConversionOptions& options);

}  // namespace symforge_internal
