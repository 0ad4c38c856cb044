// The exception directory of an x64 image as STACK CFI lines.

#pragma once

#include "base/text_buffer.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

// Appends a STACK CFI INIT line and a STACK CFI line for each function entry whose unwind data is
// in the file. The rules are those at the end of the prolog, for the whole function.
//
// Throws pdb_exception for a file that is not a PE. Every other fault is reported on standard error
// and ends the output after the lines so far: a 32-bit or managed image, no exception directory, a
// directory that leaves the file, links between entries or infos that are dangling or form a cycle.
void printUnwindData(const PeImage& image, TextBuffer& out);

}  // namespace symforge_internal
