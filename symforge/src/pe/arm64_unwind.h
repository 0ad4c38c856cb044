// The exception directory of an ARM64 image as STACK CFI lines: rules for every instruction of
// prologs and epilogs, and for the body between them.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/text_buffer.h"
#include "symforge/src/pe/cfi_rows.h"
#include "symforge/src/pe_image.h"

namespace symforge_internal {

// What became of the entries of a table. Entries that consist of zeros are fill and are not
// counted.
struct Arm64UnwindReport {
  size_t described = 0;          // have rules
  size_t malformed = 0;          // records that are cut short or contradict themselves: no rules
  size_t overlapping = 0;        // begin inside of or below an earlier entry: no rules
  size_t unsupported = 0;        // custom stack layouts, reserved or vector-length codes: no rules
  bool table_cut_short = false;  // the table leaves the file: no rules at all
  bool limit_reached = false;    // the entries ask for more than any compiler makes; see below
};

// Appends the rules of the `table_bytes` bytes of entries at RVA `table`, and those of a leaf
// function for all code of `functions` that no entry covers. `functions` ascend by begin.
//
// Reads nothing outside of the image. Time and text are bounded: the codes that are decoded and the
// rows that are written are limited in proportion to the size of the file (each row belongs to an
// instruction that takes 4 bytes of it). Entries from the limit on have no rules. Throws
// std::bad_alloc.
Arm64UnwindReport printArm64Unwind(const google_breakpad::PeImage& image, uint32_t table,
                                   uint32_t table_bytes, std::span<const CodeRange> functions,
                                   TextBuffer& out);

}  // namespace symforge_internal
