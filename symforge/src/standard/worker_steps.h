// Steps of standard mode on several threads. The results are the same as on one thread.
//
// Each returns false or null, with its results unchanged, if the workers have failed; the step is
// then to be done on one thread.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/parallel/file_workers.h"
#include "symforge/src/pdb/name_stream.h"
#include "symforge/src/pdb/source_files.h"
#include "symforge/src/pdb/type_table.h"
#include "symforge/src/pe/code_file.h"
#include "symforge/src/standard/file_numbers.h"
#include "symforge/src/standard/function_collector.h"
#include "symforge/src/standard/function_layout.h"
#include "symforge/src/standard/function_reader.h"
#include "symforge/src/standard/inline_origins.h"
#include "symforge/src/standard/module_inlinees.h"
#include "symforge/src/standard/standard_counts.h"

namespace symforge_internal {

// FunctionCollector::collect(), in parts that FunctionCollector::join() joins. `pool` null: no
// workers, nor a result.
std::optional<std::vector<FunctionCollector>> collectWithWorkers(WorkerPool* pool,
                                                                 const MsfFile& file,
                                                                 const ModuleStreams& modules,
                                                                 const SectionMap& sections,
                                                                 bool withInlines);

// Reads the inlinees and the source files of all modules while other things are done.
class ModuleTables {
 public:
  // All must outlive this; `pool` null: no workers.
  ModuleTables(WorkerPool* pool, const MsfFile& file, const ModuleStreams& modules,
               ModuleInlinees& inlinees, SourceFiles& files);

  // Waits; false if not all was read. Inlinees must be read anew then, and `files` is empty.
  bool finish();

 private:
  SourceFiles& m_files;
  WorkQueue m_queue;
  std::optional<FileAttempt> m_attempt;
};

// What functions are printed from. `types` and `ids` are only copied.
struct PrintedFunctions {
  const MsfFile& file;
  const ModuleStreams& modules;
  const SectionMap& sections;
  const FunctionCollector& collector;
  const std::vector<PlacedFunction>& functions;
  const SourceFiles& sourceFiles;
  const NameStream& strings;
  const TypeTable& types;
  const TypeTable& ids;
  ModuleInlinees& inlinees;  // of all modules, if workers print

  // What one reader reads from.
  FunctionSources with(ModuleInlinees& some, CrossModuleItems& items, FunctionNames& names) const {
    return {file, modules, sections, collector, functions, some, items, names};
  }
};

// The text of the unwind rules, which is printed later than it is made.
struct UnwindRules {
  bool made = false;
  TextBuffer text;
  std::vector<std::string> messages;
};

// Prints all functions, and makes the unwind rules of `image` for the code in `ranges`.
bool printWithWorkers(WorkerPool& pool, const PrintedFunctions& sources, const CodeFile& image,
                      const std::vector<CodeRange>& ranges, FileNumbers& files,
                      InlineOrigins& origins, StandardCounts& counts, UnwindRules& unwind,
                      TextBuffer& out);

}  // namespace symforge_internal
