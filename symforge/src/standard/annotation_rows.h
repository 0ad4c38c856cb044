// The binary annotations of an inline site as rows of (code, file, line).
//
// The annotations are compressed numbers: opcodes, each with one operand or two, that move a code
// offset, a line and a file. Every change of the code offset begins a row. A row has the length
// that follows it, or else goes on to where the site's next row begins.
//
// The two opcodes with a length differ in where the next delta counts from: ChangeCodeLength moves
// the code offset to the end of its row, ChangeCodeLengthAndCodeOffset leaves it at the start.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "symforge/src/standard/code_rows.h"

namespace symforge_internal {

// What an inline site begins with, and which part of its code is asked for.
struct AnnotationStart {
  uint32_t file = 0;  // offset of the file's entry in the module's file checksums
  uint32_t line = 0;
  // 0: the function's main code; n: the n-th part that the compiler separated from it. Offsets of
  // such a part count from its own start.
  uint32_t chunk = 0;
  uint32_t chunkSize = 0;  // bytes of that part; no row goes beyond it
};

// The source file whose entry is at an offset of the module's file checksums, or kNoFile.
using AnnotationFiles = std::function<uint32_t(uint32_t entry)>;

// Appends the rows of a site in the order of the annotations. Rows without code are left out.
// `bytes` has kAnnotationSlack readable bytes following it. Annotations that cannot be decoded end
// the rows, and false is returned. Throws what `files` throws.
bool appendAnnotationRows(const uint8_t* bytes, size_t size, const AnnotationStart& start,
                          const AnnotationFiles& files, CodeRows& rows);

}  // namespace symforge_internal
