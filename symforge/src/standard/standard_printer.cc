#include "symforge/src/standard/standard_printer.h"

#include <optional>
#include <string_view>
#include <utility>

#include "base/limits.h"
#include "base/path_names.h"
#include "common/symbol_text.h"
#include "symforge/src/parallel/table_load.h"
#include "symforge/src/pdb/foreign_types.h"
#include "symforge/src/pdb/frame_tables.h"
#include "symforge/src/pdb/name_stream.h"
#include "symforge/src/pdb/section_map.h"
#include "symforge/src/pdb/source_files.h"
#include "symforge/src/pe/architecture.h"
#include "symforge/src/standard/cross_module_items.h"
#include "symforge/src/standard/function_layout.h"
#include "symforge/src/standard/function_reader.h"
#include "symforge/src/standard/line_name.h"
#include "symforge/src/standard/module_inlinees.h"

namespace symforge_internal {

namespace {

void printPublic(const PlacedPublic& symbol, TextBuffer& out) {
  std::string storage;
  std::string_view name = lineName(symbol.name, storage);
  if (name.empty()) name = "<unnamed symbol>";
  append_line(out, PublicFields{symbol.shared, symbol.rva, symbol.paramSize, name});
}

std::vector<CodeRange> rangesOf(const std::vector<PlacedFunction>& functions) {
  std::vector<CodeRange> ranges;
  ranges.reserve(functions.size());
  for (const PlacedFunction& f : functions) {
    if (f.size != 0) ranges.push_back({f.rva, f.size});
  }
  return ranges;
}

}  // namespace

void StandardPrinter::printHeader(TextBuffer& out) const {
  std::string storage;
  const std::string_view name = lineName(last_component(m_source.pdbFile), storage);
  const char* arch = architectureName(m_source.dbi.header().machine, TextDialect::kStandard);
  append_line(out, ModuleFields{"windows", arch, m_source.debugId, name});
}

// Modules whose stream does not exist are left out.
ModuleStreams StandardPrinter::readModules() {
  ModuleStreams modules = m_source.dbi.readModuleList();
  const size_t streams = m_source.file.streams().size();
  m_counts.damagedModules += std::erase_if(modules, [streams](const ModuleStream& module) {
    return !module.hasStream() || module.streamNumber() >= streams;
  });
  return modules;
}

void StandardPrinter::insertTables(const FileNumbers& files, const InlineOrigins& origins,
                                   size_t at, TextBuffer& out) {
  TextBuffer tables;
  const TextLimit limit(tables, limits::kTables.of(m_source.file.size()));
  files.print(tables);
  origins.print(tables);
  out.insert(at, tables.view());
  m_counts.files = files.count();
  m_counts.origins = origins.count();
}

// By workers if they are wanted and do not fail. Which files and origins there are is known when
// all functions are written; their lines are inserted before those of the functions then.
UnwindRules StandardPrinter::printFunctions(const PrintedFunctions& sources, FunctionNames& names,
                                            bool withWorkers, const std::vector<CodeRange>& ranges,
                                            TextBuffer& out) {
  const size_t start = out.size();
  if (withWorkers) {
    FileNumbers files(sources.sourceFiles, sources.strings);
    InlineOrigins origins(names);
    UnwindRules unwind;
    if (printWithWorkers(*m_source.pool, sources, m_source.codeFile, ranges, files, origins,
                         m_counts, unwind, out)) {
      insertTables(files, origins, start, out);
      return unwind;
    }
  }
  FileNumbers files(sources.sourceFiles, sources.strings);
  InlineOrigins origins(names);
  ModuleInlinees inlinees(sources.modules);
  CrossModuleItems items(sources.modules, sources.strings);
  FunctionReader reader(sources.with(inlinees, items, names), files, origins);
  LinePrinter printer(files, origins);
  for (size_t i = 0; i < sources.functions.size(); ++i) printer.print(reader.read(i, out), out);
  m_counts.add(reader.counts());
  insertTables(files, origins, start, out);
  return {};
}

// Nothing is converted of PDBs whose functions or types are not those of native code.
void StandardPrinter::refuseForeignCode(const DBIDebugHeader& debugHeader,
                                        const FunctionCollector& collector) const {
  if (hasTokenMap(debugHeader) && collector.functions().empty()) {
    throw pdb_refusal(kHasTokenMap,
                      "this PDB is of managed code and has no native functions; "
                      "there is nothing to convert");
  }
  refuseForeignTypes(m_source.file, m_source.info);
}

// The unwind rules that workers have made are not appended.
void StandardPrinter::printUnwindRules(UnwindRules unwind, const std::vector<CodeRange>& ranges,
                                       TextBuffer& out) {
  if (unwind.made) {
    *m_source.unwindRules = std::move(unwind.text);
  } else {
    unwind.messages = m_source.codeFile.printUnwindRules(ranges, out);
  }
  m_counts.messages = std::move(unwind.messages);
}

void StandardPrinter::print(TextBuffer& out) {
  const MsfFile& file = m_source.file;
  printHeader(out);
  m_source.codeFile.printStandardCodeId(out);
  // More than the tables of files and origins take.
  out.reserve_front(file.size() / 8);

  const ModuleStreams modules = readModules();
  const DataPtr<DBIDebugHeader> debugHeader = m_source.dbi.readDebugHeader();
  SectionMap sections;
  sections.readSections(file, debugHeader->sectionHdr);
  sections.readOMAPData(file, debugHeader->sectionHdrOriginal, debugHeader->omapToSource,
                        debugHeader->omapFromSource);
  WorkerPool* const pool = m_source.pool;
  auto parts = collectWithWorkers(pool, file, modules, sections, m_source.withInlines);
  TableLoad tables(file, m_source.dbi.header().symRecordStream, sections, TypeDialect::kStandard,
                   pool);
  FunctionCollector collector(sections, m_source.withInlines);
  if (parts) {
    collector.join(*parts);
    parts.reset();
  } else {
    collector.collect(modules);
  }
  refuseForeignCode(*debugHeader, collector);
  NameStream strings;
  loadNameStream(file, m_source.info, m_source.pdbFile, strings);
  tables.loadPublics();
  FrameTables frames;
  frames.readFrameData(file, *debugHeader);
  tables.loadTypes();

  ModuleInlinees inlinees(modules);
  SourceFiles sources;
  ModuleTables moduleTables(pool, file, modules, inlinees, sources);
  FunctionNames names(tables.types, tables.ids);
  FunctionLayout layout(collector, sections, frames, tables.publics, names);
  layout.place();
  const bool loaded = moduleTables.finish();
  if (!loaded) sources.gatherFiles(modules);

  const std::vector<CodeRange> ranges = rangesOf(layout.functions());
  UnwindRules unwind = printFunctions({file, modules, sections, collector, layout.functions(),
                                       sources, strings, tables.types, tables.ids, inlinees},
                                      names, loaded, ranges, out);
  for (const PlacedPublic& symbol : layout.publics()) printPublic(symbol, out);
  frames.printFrameData(strings, out);
  printUnwindRules(std::move(unwind), ranges, out);

  m_counts.publics = layout.publics().size();
  m_counts.damagedModules += collector.damagedModules();
  m_counts.modulesWithoutFunctions = collector.modulesWithoutFunctions();
}

}  // namespace symforge_internal
