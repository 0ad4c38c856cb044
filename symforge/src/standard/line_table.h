// LineTable: the source lines of one function, from all blocks of lines that describe its code.
//
// A block holds the lines of one file by code offset. Compilers write a block for each stretch of
// lines from one file, so that a function has several when parts of it come from an included file.
// A record counts from its offset to that of the next one, of whatever block.

#pragma once

#include <cstddef>
#include <cstdint>

#include "symforge/src/pdb/codeview.h"
#include "symforge/src/standard/code_rows.h"

namespace symforge_internal {

class LineTable {
 public:
  // Starts a function of `size` bytes; keeps the memory.
  void begin(uint32_t size);

  // Adds the records of a block, which must be those of one file. `shift` is added to their offsets
  // and makes them count from the start of the function.
  void add(const CV_Line* lines, size_t count, uint32_t shift, uint32_t file);

  // Brings the rows into order: ascending, without overlap, none empty, inside of the function. Of
  // several records at one offset the last one counts.
  void finish();

  const CodeRows& rows() const { return m_rows; }
  // The file of the first record; kNoFile when there are none.
  uint32_t firstFile() const { return m_firstFile; }

 private:
  uint32_t m_size = 0;
  uint32_t m_firstFile = kNoFile;
  bool m_sorted = true;
  CodeRows m_rows;
};

}  // namespace symforge_internal
