// Steps of default mode on several threads. The results are the same as on one thread.
//
// Each returns false or null, with its results unchanged, if the workers have failed; the step is
// then to be done on one thread.

#pragma once

#include <atomic>
#include <optional>
#include <vector>

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

// What getModuleFunctions() has found in some modules.
struct CollectedPart {
  Functions functions;
  InlineSites sites;  // none if they were not asked for
};

// getModuleFunctions() for all modules, in parts in their order. `pool` null: no workers, nor a
// result.
std::optional<std::vector<CollectedPart>> collectWithWorkers(WorkerPool* pool,
                                                             const ModuleSources& sources,
                                                             bool withSites);

// Joins the parts, and sorts the functions as sortFunctions() does. `sites` can be null if the
// parts have none. Room for `more` further functions is reserved. The parts are used up.
void joinParts(std::vector<CollectedPart>& parts, size_t more, InlineSites* sites,
               Functions& functions);

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

// What is done while the functions are sorted and the lines of the modules are read: the frame data
// and the sizes of parameters, and the text of the unwind data, which is printed later.
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

  // Starts workers of `pool`; null: there are none.
  SideWork(WorkerPool* pool, const Parts& parts);
  ~SideWork() { release(kAbandoned); }
  SideWork(const SideWork&) = delete;
  SideWork& operator=(const SideWork&) = delete;

  // To be called when the functions are complete and sorted. From then on workers use their RVAs,
  // sections and names, and change their sizes of parameters.
  void functionsAreSorted() { release(kSorted); }

  // Waits. False if it has to be done on one thread.
  bool finish();

  // Puts the unwind data that workers have made into `apart`, which can be null without workers;
  // else appends them to `out`.
  void printUnwindData(TextBuffer* apart, TextBuffer& out);

 private:
  enum State : int { kUnsorted, kSorted, kAbandoned };

  void readFrames();
  void release(State state);

  const Parts m_parts;
  TextBuffer m_text;
  bool m_done = false;
  std::atomic<State> m_state = kUnsorted;  // of the functions
  std::optional<FileAttempt> m_attempt;
};

}  // namespace symforge_internal
