// StandardPrinter: the symbol file of a PDB in the published text format, with all that the PDB and
// the image say. docs/symbol-file.md describes its lines.

#pragma once

#include <string>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/msf/msf_file.h"
#include "symforge/src/parallel/worker_pool.h"
#include "symforge/src/pdb/dbi_stream.h"
#include "symforge/src/pdb/info_stream.h"
#include "symforge/src/pe/code_file.h"
#include "symforge/src/standard/file_numbers.h"
#include "symforge/src/standard/function_collector.h"
#include "symforge/src/standard/function_names.h"
#include "symforge/src/standard/inline_origins.h"
#include "symforge/src/standard/standard_counts.h"
#include "symforge/src/standard/worker_steps.h"

namespace symforge_internal {

// An opened PDB and its image. All must outlive the printer.
struct StandardSource {
  const MsfFile& file;
  const InfoStream& info;
  DbiStream& dbi;  // the header was read, nothing else
  const CodeFile& codeFile;
  const std::string& pdbFile;  // path
  const std::string& debugId;
  bool withInlines;
  WorkerPool* pool;         // threads that help; null: none
  TextBuffer* unwindRules;  // gets those that the threads have made; null without threads
};

class StandardPrinter {
 public:
  // `counts` must outlive this.
  StandardPrinter(const StandardSource& source, StandardCounts& counts)
      : m_source(source), m_counts(counts) {}

  // Appends the whole text. To be called once. Parts of the PDB that are damaged are left out and
  // counted; without the DBI stream, the types or the section headers, and where a limit is
  // exceeded, it throws pdb_exception or std::out_of_range.
  void print(TextBuffer& out);

 private:
  void printHeader(TextBuffer& out) const;
  ModuleStreams readModules();
  void insertTables(const FileNumbers& files, const InlineOrigins& origins, size_t at,
                    TextBuffer& out);
  UnwindRules printFunctions(const PrintedFunctions& sources, FunctionNames& names,
                             bool withWorkers, const std::vector<CodeRange>& ranges,
                             TextBuffer& out);
  void refuseForeignCode(const DBIDebugHeader& debugHeader,
                         const FunctionCollector& collector) const;
  void printUnwindRules(UnwindRules unwind, const std::vector<CodeRange>& ranges, TextBuffer& out);

  const StandardSource m_source;
  StandardCounts& m_counts;
};

}  // namespace symforge_internal
