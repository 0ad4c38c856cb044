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

// CodeFile::PrintFrameDataUsingEXE(), for which a worker can make the text while other things are
// done.
class UnwindText {
 public:
  // `image` must outlive this. `wanted` false: nothing is printed.
  UnwindText(const CodeFile& image, bool wanted) : m_image(image), m_wanted(wanted) {}

  // Starts a worker of `pool`; null: there is none.
  void start(WorkerPool* pool, const MsfFile& file);
  // Waits for it.
  void finish();
  // Appends the text.
  void print(TextBuffer& out);

 private:
  const CodeFile& m_image;
  const bool m_wanted;
  TextBuffer m_text;
  bool m_made = false;
  std::optional<FileAttempt> m_attempt;
};

}  // namespace symforge_internal
