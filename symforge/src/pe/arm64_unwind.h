// The exception directory of an ARM64 image as STACK CFI lines: rules for every instruction of
// prologs and epilogs, and for the body between them.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/text_buffer.h"
#include "symforge/src/pe/cfi_rows.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

// What became of the entries of a table. Entries that consist of zeros are padding.
struct Arm64UnwindReport {
  size_t entries = 0;      // all but padding
  size_t damaged = 0;      // entries without rules: records are cut short or contradict themselves
  size_t overlapping = 0;  // entries without rules: they begin inside of an earlier one
  size_t unsupported = 0;  // entries without rules: custom stack layouts, reserved codes, sizes
                           // that depend on the length of vector registers
  // The table leaves the file. Code above the last entry has no rules then.
  bool truncated = false;
  // Entries ask for more codes or rows than any compiler makes: see below.
  bool limit_reached = false;
};

// Limits for one image: a fixed part, and one in proportion to the bytes of the file. Each row
// belongs to an instruction, and each code either to one or to a byte of a record.
inline constexpr uint64_t kFewestArm64Codes = uint64_t{1} << 20;
inline constexpr uint64_t kArm64CodesPerFileByte = 2;
inline constexpr uint64_t kFewestArm64Rows = uint64_t{1} << 16;
inline constexpr uint64_t kFileBytesPerArm64Row = 4;

// Appends the rules of the entries in the `table_bytes` bytes at RVA `table`, by ascending address,
// and those of leaf functions.
//
// `image` must have the NT headers of a PE32+ image. `functions` are the ranges of the image's
// functions, ascending by begin. An entry without rules still covers its code: that is no leaf
// function. Nothing outside of the image is read. From the first entry beyond a limit on, entries
// have no rules. Prints no messages. Throws std::bad_alloc.
Arm64UnwindReport writeArm64UnwindRules(const PeImage& image, uint32_t table, uint32_t table_bytes,
                                        std::span<const CodeRange> functions, TextBuffer& out);

}  // namespace symforge_internal
