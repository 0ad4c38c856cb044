#include "symforge/src/PDBParser.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>

#include "base/limits.h"
#include "base/path_names.h"
#include "common/symbol_text.h"
#include "symforge/src/driver/tree_folders.h"
#include "symforge/src/emit/function_list.h"
#include "symforge/src/emit/function_printer.h"
#include "symforge/src/emit/inline_sites.h"
#include "symforge/src/emit/line_records.h"
#include "symforge/src/emit/module_functions.h"
#include "symforge/src/emit/param_sizes.h"
#include "symforge/src/emit/worker_steps.h"
#include "symforge/src/msf/msf_file.h"
#include "symforge/src/parallel/table_load.h"
#include "symforge/src/pdb/dbi_stream.h"
#include "symforge/src/pdb/frame_tables.h"
#include "symforge/src/pdb/info_stream.h"
#include "symforge/src/pdb/inlinee_lines.h"
#include "symforge/src/pdb/name_stream.h"
#include "symforge/src/pdb/public_functions.h"
#include "symforge/src/pdb/section_map.h"
#include "symforge/src/pdb/source_files.h"
#include "symforge/src/pdb/type_names.h"
#include "symforge/src/pdb/type_table.h"
#include "symforge/src/pe/architecture.h"
#include "symforge/src/pe/code_file.h"
#include "symforge/src/pe/symbol_file_of_pe.h"
#include "symforge/src/standard/image_join.h"
#include "symforge/src/standard/standard_printer.h"

namespace symforge_internal {

namespace {

// Reads the lines and inlinees of each module. If a module's stream ends too early, the rest of
// them is dropped silently.
void resolveModules(const ModuleStreams& modules, const SectionMap& sections,
                    const SourceFiles& files, Functions& functions, InlineeLines* inlinees) {
  FunctionIndex index(functions);
  for (size_t i = 0; i < modules.size(); ++i) {
    const ModuleStream& module = modules[i];
    try {
      resolveFunctionLines(module, i, sections, files, functions, index);
      if (inlinees != nullptr) inlinees->resolveInlineFunctions(module, i, files);
    } catch (const pdb_recoverable_exception&) {
      // The rest of this module is dropped; continue with the next.
    }
  }
}

// `parts`: what workers have collected, if they have; `more`: further functions to be expected.
void collectFunctions(const ModuleSources& sources, std::optional<std::vector<CollectedPart>> parts,
                      size_t more, InlineSites* sites, Functions& functions) {
  if (parts) {
    joinParts(*parts, more, sites, functions);
    return;
  }
  getModuleFunctions(sources.modules, sources.sections, sites, functions);
  sortFunctions(functions);
}

void printAll(const PrintSources& sources, WorkerPool* pool, const Functions& functions,
              TextBuffer& out) {
  if (pool != nullptr && printWithWorkers(*pool, sources, functions, out)) return;
  TypeNames names(sources.types, sources.ids);
  std::optional<InlinePrinter> inlines;
  if (sources.sites != nullptr) {
    inlines.emplace(sources.file, *sources.sites, sources.inlinees, names);
  }
  FunctionPrinter(sources.sections, names, inlines ? &*inlines : nullptr)
      .printFunctions(functions, out);
}

// A name as a reader of a MODULE or INFO CODE_ID line sees it: without surrounding blanks and
// without carriage returns at its end.
std::string nameOnLine(std::string_view name) {
  name = name.substr(0, name.find_last_not_of('\r') + 1);
  const size_t begin = std::min(name.find_first_not_of(' '), name.size());
  return std::string(name.substr(begin, name.find_last_not_of(' ') + 1 - begin));
}

}  // namespace

struct PDBParser::Rep {
  explicit Rep(bool with_inlines) : do_inline(with_inlines) {}

  const bool do_inline;
  MsfFile file;
  std::optional<InfoStream> info;
  std::optional<DbiStream> dbi;
  CodeFile codeFile;
  std::string pdbFile;  // path as given; empty selects the PE-only mode
  std::string debugId;
  WorkerPool* pool = nullptr;
  TextBuffer* unwindRules = nullptr;  // null without a pool
  bool standard = false;              // the text is in the standard format
};

PDBParser::PDBParser(bool with_inlines) : m_rep(new Rep(with_inlines)) {}

PDBParser::~PDBParser() = default;

const std::string& PDBParser::debug_id() const { return m_rep->debugId; }

const CodeFile& PDBParser::codeFile() const { return m_rep->codeFile; }

void PDBParser::useWorkers(WorkerPool& pool, TextBuffer& unwindRules) {
  m_rep->pool = &pool;
  m_rep->unwindRules = &unwindRules;
}

void PDBParser::selectStandard() { m_rep->standard = true; }

void PDBParser::close() { m_rep->file.close(); }

void PDBParser::releasePart(unsigned worker, unsigned workers) const {
  m_rep->file.releasePart(worker, workers);
}

void PDBParser::load(const char* pdb, const char* exe, const char* sympath, TextBuffer& out) {
  if (pdb != nullptr) {
    m_rep->pdbFile = pdb;
    if (!m_rep->file.Map(pdb)) throw pdb_exception("Failed to load PDB file");
    if (!readRootStream(sympath)) throw pdb_exception("Failed to read PDB Root Stream");
  } else {
    const auto dialect = m_rep->standard ? TextDialect::kStandard : TextDialect::kDefault;
    findSymbolFileOfPe(exe, sympath, dialect, out);
  }
  m_rep->codeFile.readPeHeaders(exe != nullptr ? exe : siblingPePath(pdb).c_str());
}

// Opens the streams that identify the PDB, and makes its folders below `sympath` unless it is null.
// False for every failure that does not throw.
bool PDBParser::readRootStream(const char* sympath) {
  MsfFile& file = m_rep->file;
  if (!file.readDirectory()) return false;
  InfoStream& info = m_rep->info.emplace(file.streams()[InfoStream::kStream], file.pages());
  const DbiStream& dbi = m_rep->dbi.emplace(file);
  m_rep->debugId = info.readDebugId(dbi.header().age);
  if (sympath != nullptr) {
    make_folders_or_exit(sympath, last_component(m_rep->pdbFile), m_rep->debugId);
  }
  return info.readNamedStreams();
}

void PDBParser::printHeader(TextBuffer& out) const {
  if (m_rep->dbi) {
    const std::string_view name = last_component(m_rep->pdbFile);
    const char* arch = architectureName(m_rep->dbi->header().machine, TextDialect::kDefault);
    append_line(out, ModuleFields{"windows", arch, m_rep->debugId, name});
  }
  m_rep->codeFile.printCodeId(out);
}

sym_info PDBParser::identity() const {
  sym_info info;
  info.debug_id = m_rep->debugId;
  info.debug_file = nameOnLine(last_component(m_rep->pdbFile));
  const CodeFile& image = m_rep->codeFile;
  if (image.found()) {
    info.code_id = m_rep->standard ? image.standardIdentifier() : nameOnLine(image.identifier());
    info.code_file = nameOnLine(last_component(image.path()));
  }
  return info;
}

void PDBParser::printBreakpadSymbols(TextBuffer& out, FileMod* fileMod) {
  const MsfFile& file = m_rep->file;
  const CodeFile& codeFile = m_rep->codeFile;
  const TextLimit limit(out, limits::kText.of(file.size() + codeFile.size()));
  printHeader(out);
  if (!m_rep->dbi) {
    if (codeFile.machine() == IMAGE_FILE_MACHINE_AMD64) codeFile.PrintFrameDataUsingEXE(out);
    return;
  }

  DbiStream& dbi = *m_rep->dbi;
  const ModuleStreams modules = dbi.readModuleList();
  const DataPtr<DBIDebugHeader> debugHeader = dbi.readDebugHeader();
  SectionMap sections;
  sections.readSections(file, debugHeader->sectionHdr);
  sections.printSections(out);
  sections.readOMAPData(file, debugHeader->sectionHdrOriginal, debugHeader->omapToSource,
                        debugHeader->omapFromSource);

  WorkerPool* const pool = m_rep->pool;
  TableLoad tables(file, dbi.header().symRecordStream, sections, TypeDialect::kDefault, pool);
  SourceFiles files;
  files.gatherFiles(modules);
  NameStream names;
  loadNameStream(file, *m_rep->info, m_rep->pdbFile, names);
  files.printFiles(names, fileMod, out);
  tables.loadTypes();
  if (hasTokenMap(*debugHeader)) {
    throw pdb_refusal(kHasTokenMap,
                      "this PDB has managed code, which is not converted; --standard converts its "
                      "native functions, if it has any");
  }
  tables.loadPublics();

  const TypeNames typeNames(tables.types, tables.ids);
  InlineSites allSites(typeNames);
  InlineSites* const sites = m_rep->do_inline ? &allSites : nullptr;
  const ModuleSources sources = {file, modules, sections, typeNames};
  Functions functions;
  FrameTables frames;
  auto parts = collectWithWorkers(pool, sources, sites != nullptr);
  SideWork side(pool, {file, *debugHeader, sections, codeFile,
                       dbi.header().machine == IMAGE_FILE_MACHINE_AMD64, functions, tables.publics,
                       frames, out.limit()});
  collectFunctions(sources, std::move(parts), tables.publics.symbols().size(), sites, functions);
  side.functionsAreSorted();
  InlineeLines inlinees;
  resolveModules(modules, sections, files, functions, sites != nullptr ? &inlinees : nullptr);
  const bool resolved = side.finish();
  if (!resolved) frames.readFrameData(file, *debugHeader);
  dropDuplicates(functions);
  if (!resolved) resolveParamSizes(functions, tables.publics, frames, sections.count());
  mergeGlobals(functions, tables.publics);
  printAll({file, sections, tables.types, tables.ids, inlinees, sites}, pool, functions, out);

  frames.printFrameData(names, out);
  side.printUnwindData(m_rep->unwindRules, out);
}

void PDBParser::printStandardSymbols(TextBuffer& out, StandardCounts& counts) {
  selectStandard();
  const TextLimit limit(out, limits::kText.of(m_rep->file.size() + m_rep->codeFile.size()));
  if (!m_rep->dbi) {
    joinImage(m_rep->codeFile, out, counts);
    return;
  }
  StandardPrinter({m_rep->file, *m_rep->info, *m_rep->dbi, m_rep->codeFile, m_rep->pdbFile,
                   m_rep->debugId, m_rep->do_inline, m_rep->pool, m_rep->unwindRules},
                  counts)
      .print(out);
}

bool pdb_debug_id(const char* file, std::string& id) {
  PDBParser parser(/*with_inlines=*/false);
  TextBuffer unused;
  try {
    parser.load(file, nullptr, nullptr, unused);
  } catch (...) {
    return false;
  }
  if (parser.debug_id().empty()) return false;
  id = parser.debug_id();
  return true;
}

}  // namespace symforge_internal
