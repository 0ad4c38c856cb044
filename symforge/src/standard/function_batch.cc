#include "symforge/src/standard/function_batch.h"

#include <span>

namespace symforge_internal {

void FunctionBatch::clear() {
  m_functions.clear();
  m_names.truncate(0);
  m_rows.clear();
  m_calls.clear();
  m_ranges.clear();
}

void FunctionBatch::add(FunctionReader& reader, size_t position) {
  const FunctionLines lines = reader.read(position, m_names);
  noteNumbers(lines);
  m_rows.insert(m_rows.end(), lines.rows.begin(), lines.rows.end());
  m_calls.insert(m_calls.end(), lines.calls.begin(), lines.calls.end());
  m_ranges.insert(m_ranges.end(), lines.ranges.begin(), lines.ranges.end());
  m_functions.push_back({lines.rva, lines.firstFile, lines.anyFile, m_names.size(), m_rows.size(),
                         m_calls.size(), m_ranges.size()});
}

// In the order in which they are printed.
void FunctionBatch::noteNumbers(const FunctionLines& function) {
  for (const InlinedCall& call : function.calls) {
    m_files.need(function.fileOf(call));
    m_origins.need(call.origin);
  }
  for (const CodeRow& row : function.rows) m_files.need(row.place.file);
}

void FunctionBatch::print(TextBuffer& out) {
  Function start = {};
  for (const Function& end : m_functions) {
    out.append(m_names.view().substr(start.name, end.name - start.name));
    FunctionLines lines;
    lines.rva = end.rva;
    lines.firstFile = end.firstFile;
    lines.anyFile = end.anyFile;
    lines.rows = std::span(m_rows).subspan(start.rows, end.rows - start.rows);
    lines.calls = std::span(m_calls).subspan(start.calls, end.calls - start.calls);
    lines.ranges = std::span(m_ranges).subspan(start.ranges, end.ranges - start.ranges);
    m_printer.print(lines, out);
    start = end;
  }
}

}  // namespace symforge_internal
