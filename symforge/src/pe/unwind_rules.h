// The unwind rules of an image, whatever machine it is for.

#pragma once

#include <span>
#include <string>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/pe/cfi_rows.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

// Appends STACK CFI lines, by the image's machine:
//
//   x64      the exception directory (x64_unwind.h)
//   ARM64    likewise (arm64_unwind.h)
//   ARM64EC  images whose header says x64 and whose metadata has a map of the code: each kind of
//   ARM64X   code by its own table; the header of an ARM64X image says ARM64
//   x86      nothing: the PDB has STACK WIN records
//   others   nothing, and a message
//
// A table of a hybrid image is used only when all its entries begin in code that the map gives to
// its machine.
//
// `functions` are the ranges of the image's functions, ascending by begin. Returns what is to be
// said about the image, one text for each kind of fault, without line ends. Nothing outside of the
// image is read. Throws std::bad_alloc.
std::vector<std::string> writeUnwindRules(const PeImage& image,
                                          std::span<const CodeRange> functions, TextBuffer& out);

}  // namespace symforge_internal
