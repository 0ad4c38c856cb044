#include "symforge/src/standard/function_writer.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "symforge/src/pdb/binary_annotations.h"
#include "symforge/src/standard/line_name.h"
#include "symforge/src/standard/moved_rows.h"

namespace symforge_internal {

namespace {

// Of a file that no checksum entry has.
constexpr uint32_t kNoChecksum = 0xFFFFFFFF;

// Each byte of the file may cut an inlined call once; real files cut far less.
constexpr uint64_t kLeastBudget = uint64_t{1} << 20;

constexpr char kTooManyParts[] = "Lines are moved in too many parts";

// "ADDRESS SIZE LINE" and the end of the record.
constexpr size_t kMaxRecordBytes = 8 + 1 + 8 + 1 + 10 + FileNumbers::kEndingBytes;

}  // namespace

FunctionWriter::FunctionWriter(const FunctionSources& sources, FileNumbers& files,
                               InlineOrigins& origins, StandardCounts& counts)
    : m_sources(sources),
      m_files(files),
      m_origins(origins),
      m_counts(counts),
      m_inlinees(sources.modules),
      m_calls(sources.file.pages().length + kLeastBudget,
              limits::kInlineRanges.of(sources.file.pages().length)),
      m_movedParts(limits::kMovedParts.of(sources.file.pages().length), kTooManyParts) {}

void FunctionWriter::writeAll(const std::vector<PlacedFunction>& functions, TextBuffer& out) {
  for (size_t i = 0; i < functions.size(); ++i) {
    prefetch(functions, i);
    write(functions[i], out);
  }
}

// Names and types are spread over the whole mapping.
void FunctionWriter::prefetch(const std::vector<PlacedFunction>& functions, size_t i) const {
  constexpr size_t kAhead = 8;
  const auto collected = [&](size_t position) -> const CollectedFunction& {
    return m_sources.collector.functions()[functions[position].function];
  };
  if (i + 2 * kAhead < functions.size()) {
    m_sources.names.prefetchIndex(collected(i + 2 * kAhead).typeIndex);
  }
  if (i + kAhead >= functions.size()) return;
  const CollectedFunction& next = collected(i + kAhead);
  m_sources.names.prefetchRecord(next.typeIndex);
  __builtin_prefetch(next.name.data);
  __builtin_prefetch(next.name.data + 64);
}

void FunctionWriter::write(const PlacedFunction& function, TextBuffer& out) {
  m_function = &m_sources.collector.functions()[function.function];
  writeFuncLine(function, out);
  readLines(function);
  const std::vector<CodeRow>* rows = &m_table.rows();
  if (m_sources.sections.isRewritten()) {
    moveRows(m_sources.sections, function, *rows, m_movedParts, m_moved);
    rows = &m_moved;
  }
  if (m_function->siteCount != 0 && readInlineCalls(function)) {
    m_calls.resolve(*rows);
    rows = &m_calls.lines();
    writeInlineLines(function, out);
  }
  writeLines(function, *rows, out);
}

void FunctionWriter::writeFuncLine(const PlacedFunction& function, TextBuffer& out) {
  m_name.clear();
  m_sources.names.appendFunction(m_function->name.data, m_function->typeIndex, m_name);
  std::string_view name = lineName(m_name, m_printableName);
  if (name.empty()) name = "<unnamed function>";
  append_line(out, FunctionFields{function.shared, std::nullopt, function.rva, function.size,
                                  function.paramSize, name});
  ++m_counts.functions;
  m_counts.sharedFunctions += function.shared ? 1 : 0;
}

// Of the blocks that begin with the function one is its own, the others are those of functions that
// were folded with it.
void FunctionWriter::readLines(const PlacedFunction& function) {
  m_table.begin(function.linkedSize);
  const uint64_t end = uint64_t{function.linkedRva} + function.linkedSize;
  uint32_t atStart = 0;
  for (const LineBlock& block :
       m_sources.collector.lineBlocks(m_function->module, function.linkedRva, end)) {
    if (block.rva == function.linkedRva && atStart++ != function.block) continue;
    try {
      readLineBlock(function, block);
    } catch (const pdb_recoverable_exception&) {
      ++m_counts.damagedBlocks;
    }
  }
  m_table.finish();
}

// Records of one file after the other; columns follow the lines of each in some blocks.
void FunctionWriter::readLineBlock(const PlacedFunction& function, const LineBlock& block) {
  StreamReader& reader = readerOf(m_lines, m_function->module);
  reader.seek(block.payload + uint32_t{sizeof(CV_LineSection)});
  while (reader.getOffset() < block.end &&
         block.end - reader.getOffset() >= sizeof(CV_SourceFile)) {
    const uint32_t start = reader.getOffset();
    const DataPtr<CV_SourceFile> source = reader.read<CV_SourceFile>();
    const uint32_t count = source->count;
    const uint64_t bytes = uint64_t{count} * sizeof(CV_Line);
    if (bytes > block.end - reader.getOffset()) {
      ++m_counts.damagedBlocks;
      return;
    }
    const uint32_t file = m_files.find(m_function->module, source->index);
    if (count != 0) {
      const DataPtr<CV_Line> lines = reader.read<CV_Line>(static_cast<uint32_t>(bytes));
      if (file != kNoFile) m_table.add(lines.data, count, block.rva - function.linkedRva, file);
    }
    const uint64_t next = uint64_t{start} + source->linsiz;
    if (next >= block.end) return;
    if (next > reader.getOffset()) reader.seek(static_cast<uint32_t>(next));
  }
}

StreamReader& FunctionWriter::readerOf(ModuleReader& of, uint32_t module) const {
  if (!of.reader || of.module != module) {
    const MsfFile& file = m_sources.file;
    of.reader.emplace(file.getStream(m_sources.modules[module].streamNumber()), file.pages());
    of.module = module;
  }
  return *of.reader;
}

// False when no site has code with a known place: a call needs a file.
bool FunctionWriter::readInlineCalls(const PlacedFunction& function) {
  if (function.chunk > FunctionLayout::kMaxChunks) return false;
  m_calls.begin(function.size);
  m_anyFile = m_table.firstFile();
  for (const uint32_t symbol : m_sources.collector.sites(*m_function)) {
    if (symbol == FunctionCollector::kSiteEnd) {
      m_calls.close();
      continue;
    }
    try {
      openSite(function, symbol);
    } catch (const pdb_recoverable_exception&) {
      ++m_counts.damagedBlocks;
      m_calls.openLeftOut();
    }
  }
  return !m_calls.empty() && m_anyFile != kNoFile;
}

// Nothing is opened before everything is read.
void FunctionWriter::openSite(const PlacedFunction& function, uint32_t symbol) {
  StreamReader& reader = readerOf(m_symbols, m_function->module);
  reader.seek(symbol);
  const DataPtr<SymbolHeader> header = reader.read<SymbolHeader>();
  const uint32_t body =
      header->type == S_INLINESITE2 ? sizeof(CV_InlineSite2) : sizeof(CV_InlineSite);
  const uint32_t fixed = body + sizeof(SymbolHeader::type);
  const uint32_t size = header->size > fixed ? header->size - fixed : 0;
  const uint32_t inlinee = reader.read<CV_InlineSite>(body)->inlinee;
  DataPtr<uint8_t> annotations;
  if (size != 0) annotations = reader.read<uint8_t>(size);

  const Callee& callee = findCallee(inlinee);
  const bool unnamed = callee.origin == InlineOrigins::kUnnamed;
  if (unnamed || m_calls.full()) {
    m_calls.openLeftOut();
    ++(unnamed ? m_counts.unnamedInlinees : m_counts.tooDeepCalls);
    return;
  }
  m_calls.open(callee.origin);
  const AnnotationStart start{callee.file, callee.line, function.chunk, function.linkedSize};
  m_annotationRows.clear();
  if (!appendAnnotationRows(annotations.data, size, start, m_annotationRows)) {
    ++m_counts.damagedBlocks;
  }
  for (const AnnotationRow& row : m_annotationRows) addRow(function, row);
}

// Functions of one module mostly follow each other, and name the same callees.
const FunctionWriter::Callee& FunctionWriter::findCallee(uint32_t inlinee) {
  const uint32_t module = m_function->module;
  Callee* known = m_callees.find(inlinee);
  if (known != nullptr && known->module == module) return *known;
  Callee callee{module, m_origins.find(m_sources.items.find(module, inlinee)), kNoChecksum, 0};
  if (const InlineeStart* start = m_inlinees.find(module, inlinee)) {
    callee.file = start->file;
    callee.line = start->line;
  }
  if (known != nullptr) return *known = callee;
  return m_callees.values()[m_callees.insert(inlinee, std::move(callee))];
}

void FunctionWriter::addRow(const PlacedFunction& function, const AnnotationRow& row) {
  CodeRow code{row.start, row.end, {m_files.find(m_function->module, row.file), row.line}};
  if (!code.place.known()) code.place.line = 0;
  if (m_anyFile == kNoFile) m_anyFile = code.place.file;
  if (!m_sources.sections.isRewritten()) {
    m_calls.addRow(code);
    return;
  }
  m_movedSite.clear();
  appendMovedRow(m_sources.sections, function, code, m_movedParts, m_movedSite);
  for (const CodeRow& moved : m_movedSite) m_calls.addRow(moved);
}

void FunctionWriter::writeInlineLines(const PlacedFunction& function, TextBuffer& out) {
  for (const InlinedCall& call : m_calls.calls()) {
    m_ranges.clear();
    for (uint32_t i = 0; i < call.rangeCount; ++i) {
      const InlineRange& range = m_calls.ranges()[call.firstRange + i];
      m_ranges.push_back({function.rva + range.start, range.end - range.start});
    }
    append_line(out, InlineCallFields{call.depth, call.caller.line, m_files.number(callFile(call)),
                                      m_origins.number(call.origin), m_ranges});
  }
  m_counts.inlinedCalls += m_calls.calls().size();
}

// Code that the compiler made has no line to be called from: a file of the function or of the
// callee takes its place.
uint32_t FunctionWriter::callFile(const InlinedCall& call) const {
  if (call.caller.known()) return call.caller.file;
  if (m_table.firstFile() != kNoFile) return m_table.firstFile();
  return call.calleeFile != kNoFile ? call.calleeFile : m_anyFile;
}

// Most of a symbol file is written by this loop, so it keeps its place in a register.
void FunctionWriter::writeLines(const PlacedFunction& function, const std::vector<CodeRow>& rows,
                                TextBuffer& out) {
  char* const begin = out.prepare(kMaxRecordBytes * rows.size());
  char* at = begin;
  for (const CodeRow& row : rows) {
    at = put_hex(at, function.rva + row.start);
    *at++ = ' ';
    at = put_hex(at, row.end - row.start);
    *at++ = ' ';
    at = put_dec(at, row.place.line);
    at = m_files.appendEnding(row.place.file, at);
  }
  out.commit(static_cast<size_t>(at - begin));
  m_counts.lines += rows.size();
}

}  // namespace symforge_internal
