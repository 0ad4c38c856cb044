// The exception directory of an x64 image as STACK CFI lines.

#pragma once

#include "base/text_buffer.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

// Appends a STACK CFI INIT line and a STACK CFI line for each function entry whose unwind data lies
// in the file. The rules are those of the prolog's end and stand for the whole function.
//
// Throws pdb_exception for a file that is no PE at all. Everything else that is wrong with the
// image is told on standard error and ends this with the lines so far: a 32-bit or managed image,
// one without an exception directory, a directory that leaves the file, links between entries or
// infos that lead nowhere or round in a circle.
void printUnwindData(const PeImage& image, TextBuffer& out);

}  // namespace symforge_internal
