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
  constexpr size_t kNumbers = 96;
  constexpr size_t kRangeBytes = 2 * (8 + 1) + 8;
  for (const InlinedCall& call : function.calls) {
    LineWriter line(out, kNumbers + kRangeBytes * call.rangeCount);
    line.str("INLINE ").dec(call.depth).chr(' ').dec(call.caller.line).chr(' ');
    line.dec(m_files.number(function.fileOf(call))).chr(' ').dec(m_origins.number(call.origin));
    for (const InlineRange& range : function.ranges.subspan(call.firstRange, call.rangeCount)) {
      line.chr(' ').hex(function.rva + range.start).chr(' ').hex(range.end - range.start);
    }
    line.chr('\n');
  }
}

// Most of a symbol file is written by this loop, so it keeps its place in a register.
void LinePrinter::printRows(const FunctionLines& function, TextBuffer& out) {
  char* const begin = out.prepare(kMaxRecordBytes * function.rows.size());
  char* at = begin;
  for (const CodeRow& row : function.rows) {
    at = put_hex(at, function.rva + row.start);
    *at++ = ' ';
    at = put_hex(at, row.end - row.start);
    *at++ = ' ';
    at = put_dec(at, row.place.line);
    at = m_files.appendEnding(row.place.file, at);
  }
  out.commit(static_cast<size_t>(at - begin));
}

}  // namespace symforge_internal
