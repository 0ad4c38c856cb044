#include "symforge/src/standard/function_reader.h"

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

}  // namespace

FunctionReader::FunctionReader(const FunctionSources& sources, FileNumbers& files,
                               InlineOrigins& origins)
    : m_sources(sources),
      m_files(files),
      m_annotationFiles([this](uint32_t entry) { return m_files.find(m_function->module, entry); }),
      m_origins(origins),
      m_lineBlocks(sources.collector),
      m_calls(maxRanges(sources.file), limits::kInlineRanges.of(sources.file.pages().length)) {}

uint64_t FunctionReader::maxRanges(const MsfFile& file) {
  return file.pages().length + kLeastBudget;
}

// Names and types are spread over the whole mapping.
void FunctionReader::prefetch(size_t i) const {
  constexpr size_t kAhead = 8;
  const auto collected = [&](size_t position) -> const CollectedFunction& {
    return m_sources.collector.functions()[m_sources.functions[position].function];
  };
  if (i + 2 * kAhead < m_sources.functions.size()) {
    m_sources.names.prefetchIndex(collected(i + 2 * kAhead).typeIndex);
  }
  if (i + kAhead >= m_sources.functions.size()) return;
  const CollectedFunction& next = collected(i + kAhead);
  m_sources.names.prefetchRecord(next.typeIndex);
  __builtin_prefetch(next.name.data);
  __builtin_prefetch(next.name.data + 64);
}

FunctionLines FunctionReader::read(size_t position, TextBuffer& out) {
  prefetch(position);
  const PlacedFunction& function = m_sources.functions[position];
  m_function = &m_sources.collector.functions()[function.function];
  writeFuncLine(function, out);
  readLines(function);
  FunctionLines lines{function.rva, m_table.rows(), {}, {}, m_table.firstFile(), kNoFile};
  const CodeRows* rows = &m_table.rows();
  if (m_sources.sections.isRewritten()) {
    moveRows(m_sources.sections, function, *rows, m_sources.file.budget().movedParts, m_moved);
    rows = &m_moved;
    lines.rows = m_moved;
  }
  if (m_function->siteCount != 0 && readInlineCalls(function)) {
    m_calls.resolve(*rows);
    lines.rows = m_calls.lines();
    lines.calls = m_calls.calls();
    lines.ranges = m_calls.ranges();
    lines.anyFile = m_anyFile;
  }
  m_counts.lines += lines.rows.size();
  m_counts.inlinedCalls += lines.calls.size();
  return lines;
}

void FunctionReader::writeFuncLine(const PlacedFunction& function, TextBuffer& out) {
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
void FunctionReader::readLines(const PlacedFunction& function) {
  m_table.begin(function.linkedSize);
  const uint64_t end = uint64_t{function.linkedRva} + function.linkedSize;
  uint32_t atStart = 0;
  for (const LineBlock& block : m_lineBlocks.find(m_function->module, function.linkedRva, end)) {
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
void FunctionReader::readLineBlock(const PlacedFunction& function, const LineBlock& block) {
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

StreamReader& FunctionReader::readerOf(ModuleReader& of, uint32_t module) const {
  if (!of.reader || of.module != module) {
    const MsfFile& file = m_sources.file;
    of.reader.emplace(file.getStream(m_sources.modules[module].streamNumber()), file.pages());
    of.module = module;
  }
  return *of.reader;
}

// False when no site has code with a known place: a call needs a file.
bool FunctionReader::readInlineCalls(const PlacedFunction& function) {
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
void FunctionReader::openSite(const PlacedFunction& function, uint32_t symbol) {
  StreamReader& reader = readerOf(m_symbols, m_function->module);
  reader.seek(symbol);
  const DataPtr<SymbolHeader> header = reader.read<SymbolHeader>();
  const uint32_t body =
      header->type == S_INLINESITE2 ? sizeof(CV_InlineSite2) : sizeof(CV_InlineSite);
  const uint32_t fixed = body + sizeof(SymbolHeader::type);
  const uint32_t size = header->size > fixed ? header->size - fixed : 0;
  const DataPtr<CV_InlineSite> site = reader.read<CV_InlineSite>(body + size);
  const uint8_t* const annotations = reinterpret_cast<const uint8_t*>(site.data) + body;

  const Callee& callee = findCallee(site->inlinee);
  const bool unnamed = callee.origin == InlineOrigins::kUnnamed;
  if (unnamed || m_calls.full()) {
    m_calls.openLeftOut();
    ++(unnamed ? m_counts.unnamedInlinees : m_counts.tooDeepCalls);
    return;
  }
  m_calls.open(callee.origin);
  const AnnotationStart start{callee.file, callee.line, function.chunk, function.linkedSize};
  m_calls.addRows([&](CodeRows& rows) {
    if (!appendSiteRows(function, {annotations, size}, start, rows)) ++m_counts.damagedBlocks;
  });
}

// Functions of one module mostly follow each other, and name the same callees.
const FunctionReader::Callee& FunctionReader::findCallee(uint32_t inlinee) {
  const uint32_t module = m_function->module;
  Callee* known = m_callees.find(inlinee);
  if (known != nullptr && known->module == module) return *known;
  Callee callee{module, m_origins.find(m_sources.items.find(module, inlinee)), kNoChecksum, 0};
  if (const InlineeStart* start = m_sources.inlinees.find(module, inlinee)) {
    callee.file = start->file;
    callee.line = start->line;
  }
  if (known != nullptr) return *known = callee;
  return m_callees.values()[m_callees.insert(inlinee, Callee(callee))];
}

// Appends the rows that the annotations of a site describe. False if there is an invalid one.
bool FunctionReader::appendSiteRows(const PlacedFunction& function,
                                    std::span<const uint8_t> annotations,
                                    const AnnotationStart& start, CodeRows& rows) {
  const bool moved = m_sources.sections.isRewritten();
  CodeRows& linked = moved ? m_linkedRows : rows;
  if (moved) linked.clear();
  const size_t first = linked.size();
  const bool valid = appendAnnotationRows(annotations.data(), annotations.size(), start,
                                          m_annotationFiles, linked);
  for (size_t i = first; m_anyFile == kNoFile && i < linked.size(); ++i) {
    m_anyFile = linked[i].place.file;
  }
  for (size_t i = 0; moved && i < linked.size(); ++i) {
    appendMovedRow(m_sources.sections, function, linked[i], m_sources.file.budget().movedParts,
                   rows);
  }
  return valid;
}

}  // namespace symforge_internal
