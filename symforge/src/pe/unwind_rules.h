// The unwind rules of an image for any machine.

#pragma once

#include <span>
#include <string>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/pe/cfi_rows.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

// The messages about entries begin with this and their number.
inline constexpr char kNoRulesFor[] = "no unwind rules for ";

// Appends STACK CFI lines, by the image's machine:
//
//   x64      the exception directory (x64_unwind.h)
//   ARM64    likewise (arm64_unwind.h)
//   ARM64EC  header of x64, with a code map in the metadata: each kind of code by its own table
//   ARM64X   likewise, with a header of ARM64
//   x86      nothing: the PDB has STACK WIN records
//   others   nothing, and a message
//
// A table of a hybrid image is used only when all its entries begin in code that the map assigns
// to the table's machine.
//
// `functions` are the ranges of the image's functions, ascending by begin. Returns messages
// about the image, one for each kind of fault, without line ends. Nothing outside the image is
// read. Throws std::bad_alloc.
std::vector<std::string> writeUnwindRules(const PeImage& image,
                                          std::span<const CodeRange> functions, TextBuffer& out);

}  // namespace symforge_internal
