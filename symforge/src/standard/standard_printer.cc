#include "symforge/src/standard/standard_printer.h"

#include <string_view>

#include "base/limits.h"
#include "base/path_names.h"
#include "common/symbol_text.h"
#include "symforge/src/pdb/foreign_types.h"
#include "symforge/src/pdb/frame_tables.h"
#include "symforge/src/pdb/name_stream.h"
#include "symforge/src/pdb/public_functions.h"
#include "symforge/src/pdb/section_map.h"
#include "symforge/src/pdb/source_files.h"
#include "symforge/src/pdb/type_table.h"
#include "symforge/src/pe/architecture.h"
#include "symforge/src/standard/file_numbers.h"
#include "symforge/src/standard/function_collector.h"
#include "symforge/src/standard/function_layout.h"
#include "symforge/src/standard/function_names.h"
#include "symforge/src/standard/function_writer.h"
#include "symforge/src/standard/inline_origins.h"
#include "symforge/src/standard/line_name.h"

namespace symforge_internal {

namespace {

void printPublic(const PlacedPublic& symbol, TextBuffer& out) {
  std::string storage;
  std::string_view name = lineName(symbol.name, storage);
  if (name.empty()) name = "<unnamed symbol>";
  append_line(out, PublicFields{symbol.shared, symbol.rva, symbol.paramSize, name});
}

// The type and id records.
struct Types {
  explicit Types(const MsfFile& file) {
    loadTypeStream(file, kTypeInfoStream, types, /*required=*/true);
    loadTypeStream(file, kIPIStream, ids, /*required=*/false);
  }

  TypeTable types{TypeDialect::kStandard};
  TypeTable ids{TypeDialect::kStandard};
};

}  // namespace

void StandardPrinter::printHeader(TextBuffer& out) const {
  std::string storage;
  const std::string_view name = lineName(last_component(m_source.pdbFile), storage);
  const char* arch = architectureName(m_source.dbi.header().machine, TextDialect::kStandard);
  append_line(out, ModuleFields{"windows", arch, m_source.debugId, name});
}

void StandardPrinter::printUnwindRules(const std::vector<PlacedFunction>& functions,
                                       TextBuffer& out) const {
  std::vector<CodeRange> ranges;
  ranges.reserve(functions.size());
  for (const PlacedFunction& f : functions) {
    if (f.size != 0) ranges.push_back({f.rva, f.size});
  }
  for (const std::string& message : m_source.codeFile.printUnwindRules(ranges, out)) {
    m_counts.messages.push_back(message);
  }
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

// Which files and origins there are is known when all functions are written; their lines are
// inserted before those of the functions then.
void StandardPrinter::print(TextBuffer& out) {
  const MsfFile& file = m_source.file;
  printHeader(out);
  m_source.codeFile.printStandardCodeId(out);
  const size_t start = out.size();

  ModuleStreams modules = readModules();
  const DataPtr<DBIDebugHeader> debugHeader = m_source.dbi.readDebugHeader();
  SectionMap sections;
  sections.readSections(file, debugHeader->sectionHdr);
  sections.readOMAPData(file, debugHeader->sectionHdrOriginal, debugHeader->omapToSource,
                        debugHeader->omapFromSource);
  FunctionCollector collector(sections, m_source.withInlines);
  collector.collect(modules);
  if (hasTokenMap(*debugHeader) && collector.functions().empty()) {
    throw pdb_refusal(kHasTokenMap,
                      "this PDB is of managed code and has no native functions; "
                      "there is nothing to convert");
  }
  refuseForeignTypes(file, m_source.info);
  NameStream strings;
  loadNameStream(file, m_source.info, m_source.pdbFile, strings);
  PublicFunctions publics;
  publics.getGlobalFunctions(file, m_source.dbi.header().symRecordStream, sections);
  FrameTables frames;
  frames.readFrameData(file, *debugHeader);
  const Types types(file);

  FunctionNames names(types.types, types.ids);
  FunctionLayout layout(collector, sections, frames, publics, names);
  layout.place();

  SourceFiles sources;
  sources.gatherFiles(modules);
  FileNumbers files(sources, strings);
  InlineOrigins origins(names);
  CrossModuleItems items(modules, strings);
  FunctionWriter writer({file, modules, sections, collector, items, names}, files, origins,
                        m_counts);
  writer.writeAll(layout.functions(), out);
  for (const PlacedPublic& symbol : layout.publics()) printPublic(symbol, out);
  insertTables(files, origins, start, out);
  frames.printFrameData(strings, out);
  printUnwindRules(layout.functions(), out);

  m_counts.publics = layout.publics().size();
  m_counts.damagedModules += collector.damagedModules();
  m_counts.modulesWithoutFunctions = collector.modulesWithoutFunctions();
}

}  // namespace symforge_internal
