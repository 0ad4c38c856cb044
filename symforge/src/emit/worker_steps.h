// Steps of default mode on several threads. The results are the same as on one thread.
//
// Each returns false, with its results unchanged, if the workers have failed; the step is then to
// be done on one thread.

#pragma once

#include <optional>

#include "base/text_buffer.h"
#include "symforge/src/emit/function_record.h"
#include "symforge/src/emit/inline_sites.h"
#include "symforge/src/parallel/file_workers.h"
#include "symforge/src/pdb/frame_tables.h"
#include "symforge/src/pdb/public_functions.h"
#include "symforge/src/pdb/section_map.h"
#include "symforge/src/pdb/type_table.h"
#include "symforge/src/pe/code_file.h"

namespace symforge_internal {

// What functions are read from.
struct ModuleSources {
  const MsfFile& file;
  const ModuleStreams& modules;
  const SectionMap& sections;
  const TypeNames& names;
};

// getModuleFunctions() for all modules, and sortFunctions(). `sites` can be null. Room for `more`
// further functions is reserved.
bool collectWithWorkers(WorkerPool& pool, const ModuleSources& sources, size_t more,
                        InlineSites* sites, Functions& functions);

// What functions are printed from. `types` and `ids` are only copied.
struct PrintSources {
  const MsfFile& file;
  const SectionMap& sections;
  const TypeTable& types;
  const TypeTable& ids;
  const InlineeLines& inlinees;
  const InlineSites* sites;  // null: no I lines
};

// FunctionPrinter::printFunctions().
bool printWithWorkers(WorkerPool& pool, const PrintSources& sources, const Functions& functions,
                      TextBuffer& out);

// What is done while the lines of the modules are read: the frame data and the sizes of parameters,
// and the text of the unwind data, which is printed later.
class SideWork {
 public:
  // All must outlive this; see resolveParamSizes(). Functions get sizes also if they are dropped.
  struct Parts {
    const MsfFile& file;
    const DBIDebugHeader& debugHeader;
    const SectionMap& sections;
    const CodeFile& image;
    bool withUnwindData;
    Functions& functions;
    PublicFunctions& globals;
    FrameTables& frames;
    size_t textLimit;  // of the whole text
  };

  // Starts workers of `pool`, which use only RVAs, sections and names of the functions and change
  // only their sizes of parameters; null: there are none.
  SideWork(WorkerPool* pool, const Parts& parts);

  // Waits. False if it has to be done on one thread.
  bool finish();

  // Appends the unwind data.
  void printUnwindData(TextBuffer& out) const;

 private:
  void readFrames();

  const Parts m_parts;
  TextBuffer m_text;
  bool m_done = false;
  std::optional<FileAttempt> m_attempt;
};

}  // namespace symforge_internal
