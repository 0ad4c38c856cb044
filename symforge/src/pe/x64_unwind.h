// The exception directory of an x64 image as STACK CFI rows that are right at each instruction
// which the data describe.
//
// Each entry covers a range of code and refers to a record of what the range's prolog does. A row
// is written at the end of each such instruction. Records of version 2 also list epilogs; each of
// their instructions gets a row as well. Version 1 does not describe epilogs: the rules of the
// function's body are in force there. A record can be chained to that of an earlier part of the
// function: its code then begins with all that the earlier prologs have built. Code of functions
// that no entry covers belongs to leaf functions.
//
// The formats are published as "x64 exception handling" in Microsoft's documentation of its
// compilers.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/text_buffer.h"
#include "symforge/src/pe/cfi_rows.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

// Windows follows this many links from an entry, too.
inline constexpr size_t kMostUnwindLinks = 32;

// The slots of unwind data that are read for one image, one entry after the other. Compilers need
// 5 for an entry on average. The limit keeps chains that many entries share from making endless
// work and text; entries without a slot left count as damaged. Links and epilogs count as slots.
inline constexpr uint64_t kUnwindSlotsPerEntry = 32;
inline constexpr uint64_t kFewestUnwindSlots = 1 << 16;

struct X64UnwindReport {
  size_t entries = 0;          // all but those that are zero, which linkers use as padding
  size_t unknown_version = 0;  // entries without rules: their data has a version that is not 1 or 2
  size_t damaged = 0;          // entries without rules: their data is inconsistent or too much
  size_t overlapping = 0;      // entries without rules: they begin inside of an earlier one
  // Epilogs that have no rows of their own: their code is not what the unwind data promise.
  size_t unmatched_epilogs = 0;
  // The exception directory leaves the file. Code above the last entry has no rules then.
  bool truncated = false;
};

// Appends the rules of the entries in the `table_bytes` bytes at RVA `table`, by ascending address,
// and those of leaf functions.
//
// `image` must have the NT headers of a PE32+ image for x64. `functions` are the ranges of the
// image's functions, ascending by begin. An entry without rules still covers its code: that is no
// leaf function. Prints no messages. Throws std::bad_alloc.
X64UnwindReport writeX64UnwindRules(const PeImage& image, uint32_t table, uint32_t table_bytes,
                                    std::span<const CodeRange> functions, TextBuffer& out);

// The same for the table in the image's exception directory.
X64UnwindReport writeX64UnwindRules(const PeImage& image, std::span<const CodeRange> functions,
                                    TextBuffer& out);

}  // namespace symforge_internal
