// FunctionBatch: functions that are read before the numbers of their files and origins are known,
// and printed afterwards.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/standard/function_lines.h"
#include "symforge/src/standard/function_reader.h"

namespace symforge_internal {

class FunctionBatch {
 public:
  // Must outlive this and belong to this batch alone.
  FunctionBatch(FileNumbers& files, InlineOrigins& origins)
      : m_files(files), m_origins(origins), m_printer(files, origins) {}

  // Starts the next batch; keeps the memory.
  void clear();

  // Reads a function and notes the numbers that it needs. Throws what FunctionReader::read()
  // throws.
  void add(FunctionReader& reader, size_t position);

  // Appends all functions; their numbers must have been taken.
  void print(TextBuffer& out);

 private:
  // Ends in the other members.
  struct Function {
    uint32_t rva;
    uint32_t firstFile;
    uint32_t anyFile;
    size_t name;
    size_t rows;
    size_t calls;
    size_t ranges;
  };

  void noteNumbers(const FunctionLines& function);

  FileNumbers& m_files;
  InlineOrigins& m_origins;
  LinePrinter m_printer;
  std::vector<Function> m_functions;
  TextBuffer m_names;  // FUNC lines
  std::vector<CodeRow> m_rows;
  std::vector<InlinedCall> m_calls;
  std::vector<InlineRange> m_ranges;
};

}  // namespace symforge_internal
