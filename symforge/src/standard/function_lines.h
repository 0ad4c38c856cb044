// FunctionLines: what follows the FUNC line of a function. LinePrinter: its INLINE lines and line
// records.

#pragma once

#include <cstdint>
#include <span>

#include "base/text_buffer.h"
#include "common/symbol_text.h"
#include "symforge/src/standard/code_row.h"
#include "symforge/src/standard/file_numbers.h"
#include "symforge/src/standard/inline_calls.h"
#include "symforge/src/standard/inline_origins.h"

namespace symforge_internal {

// Borrowed. Files and origins are those of the FileNumbers and InlineOrigins of the reader.
struct FunctionLines {
  uint32_t rva = 0;
  std::span<const CodeRow> rows;
  std::span<const InlinedCall> calls;
  std::span<const InlineRange> ranges;  // of the calls
  uint32_t firstFile = kNoFile;         // of the function's own lines
  uint32_t anyFile = kNoFile;           // of any of its code, if there are calls

  // The file that a call is shown in. Code that the compiler made has no line to be called from: a
  // file of the function or of the callee takes its place.
  uint32_t fileOf(const InlinedCall& call) const {
    if (call.caller.known()) return call.caller.file;
    if (firstFile != kNoFile) return firstFile;
    return call.calleeFile != kNoFile ? call.calleeFile : anyFile;
  }
};

class LinePrinter {
 public:
  // Both must outlive this.
  LinePrinter(FileNumbers& files, InlineOrigins& origins) : m_files(files), m_origins(origins) {}

  // Appends the lines of a function.
  void print(const FunctionLines& function, TextBuffer& out);

 private:
  void printCalls(const FunctionLines& function, TextBuffer& out);
  void printRows(const FunctionLines& function, TextBuffer& out);

  FileNumbers& m_files;
  InlineOrigins& m_origins;
  std::vector<InlineCallFields::Range> m_ranges;  // of the call that is printed
};

}  // namespace symforge_internal
