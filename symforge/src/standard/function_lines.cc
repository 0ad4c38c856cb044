#include "symforge/src/standard/function_lines.h"

namespace symforge_internal {

namespace {

// "ADDRESS SIZE LINE" and the end of the record.
constexpr size_t kMaxRecordBytes = 8 + 1 + 8 + 1 + 10 + FileNumbers::kEndingBytes;

}  // namespace

void LinePrinter::print(const FunctionLines& function, TextBuffer& out) {
  printCalls(function, out);
  printRows(function, out);
}

void LinePrinter::printCalls(const FunctionLines& function, TextBuffer& out) {
  for (const InlinedCall& call : function.calls) {
    m_ranges.resize(call.rangeCount);
    for (uint32_t i = 0; i < call.rangeCount; ++i) {
      const InlineRange& range = function.ranges[call.firstRange + i];
      m_ranges[i] = {function.rva + range.start, range.end - range.start};
    }
    append_line(
        out, InlineCallFields{call.depth, call.caller.line, m_files.number(function.fileOf(call)),
                              m_origins.number(call.origin), m_ranges});
  }
}

// Most of a symbol file is written by this loop, so it keeps its place in a register.
void LinePrinter::printRows(const FunctionLines& function, TextBuffer& out) {
  char* const begin = out.prepare(kMaxRecordBytes * function.rows.size());
  char* at = begin;
  for (const CodeRow& row : function.rows) {
    at = put_hex_pair(at, function.rva + row.start, row.end - row.start);
    at = put_dec(at, row.place.line);
    at = m_files.appendEnding(row.place.file, at);
  }
  out.commit(static_cast<size_t>(at - begin));
}

}  // namespace symforge_internal
