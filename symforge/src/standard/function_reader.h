// FunctionReader: the name of a function, its inlined calls and its lines.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/first_wins_map.h"
#include "base/text_buffer.h"
#include "common/symbol_text.h"
#include "symforge/src/standard/annotation_rows.h"
#include "symforge/src/standard/cross_module_items.h"
#include "symforge/src/standard/file_numbers.h"
#include "symforge/src/standard/function_collector.h"
#include "symforge/src/standard/function_layout.h"
#include "symforge/src/standard/function_lines.h"
#include "symforge/src/standard/function_names.h"
#include "symforge/src/standard/inline_calls.h"
#include "symforge/src/standard/inline_origins.h"
#include "symforge/src/standard/line_table.h"
#include "symforge/src/standard/module_inlinees.h"
#include "symforge/src/standard/standard_counts.h"

namespace symforge_internal {

// What functions are read from. All must outlive the reader; what is not constant is used by one
// reader at a time.
struct FunctionSources {
  const MsfFile& file;
  const ModuleStreams& modules;
  const SectionMap& sections;
  const FunctionCollector& collector;
  const std::vector<PlacedFunction>& functions;
  ModuleInlinees& inlinees;  // constant, if the tables of all modules were read
  CrossModuleItems& items;
  FunctionNames& names;
};

class FunctionReader {
 public:
  // `files` and `origins` must outlive this; what it finds refers to them.
  FunctionReader(const FunctionSources& sources, FileNumbers& files, InlineOrigins& origins);
  FunctionReader(const FunctionReader&) = delete;
  FunctionReader& operator=(const FunctionReader&) = delete;

  // Appends the FUNC line of the function at a position of the list to `out`, and returns what
  // follows it. Lines and inline sites that cannot be read are left out. The result is valid until
  // the next call. Throws pdb_exception for names that cannot be rendered and what
  // InlineCalls::resolve() throws.
  FunctionLines read(size_t position, TextBuffer& out);

  // How many ranges the inlined calls of all functions of a file can be cut into.
  static uint64_t maxRanges(const MsfFile& file);

  // Of all functions so far.
  const StandardCounts& counts() const { return m_counts; }
  // How many more ranges inlined calls can be cut into.
  uint64_t rangesLeft() const { return m_calls.rangesLeft(); }

 private:
  // The reader of the stream that the last function came from.
  struct ModuleReader {
    std::optional<StreamReader> reader;
    uint32_t module = 0;
  };

  // An inlined function as a module names it.
  struct Callee {
    uint32_t module = 0;
    uint32_t origin = InlineOrigins::kUnnamed;
    uint32_t file = 0;  // offset of the entry in the module's file checksums
    uint32_t line = 0;
  };

  void prefetch(size_t i) const;
  const Callee& findCallee(uint32_t inlinee);
  void writeFuncLine(const PlacedFunction& function, TextBuffer& out);
  void readLines(const PlacedFunction& function);
  void readLineBlock(const PlacedFunction& function, const LineBlock& block);
  bool readInlineCalls(const PlacedFunction& function);
  void openSite(const PlacedFunction& function, uint32_t symbol);
  bool appendSiteRows(const PlacedFunction& function, std::span<const uint8_t> annotations,
                      const AnnotationStart& start, CodeRows& rows);
  StreamReader& readerOf(ModuleReader& of, uint32_t module) const;

  const FunctionSources m_sources;
  FileNumbers& m_files;
  const AnnotationFiles m_annotationFiles;  // of the module of m_function
  InlineOrigins& m_origins;
  StandardCounts m_counts;
  LineBlockFinder m_lineBlocks;
  FirstWinsMap<Callee> m_callees;  // by item: of the module that named it last
  ModuleReader m_symbols;          // two readers, as a module's symbols and lines are far apart
  ModuleReader m_lines;

  // Of the function that is being read.
  const CollectedFunction* m_function = nullptr;
  std::string m_name;
  std::string m_printableName;
  LineTable m_table;
  InlineCalls m_calls;
  CodeRows m_moved;
  CodeRows m_linkedRows;
  uint32_t m_anyFile = kNoFile;
};

}  // namespace symforge_internal
