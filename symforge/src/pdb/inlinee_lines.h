// InlineeLines: where inlined functions are defined, by item identifier (inlinee), for all modules
// of a PDB.

#pragma once

#include <cstddef>
#include <cstdint>

#include "base/first_wins_map.h"
#include "symforge/src/pdb/module_stream.h"
#include "symforge/src/pdb/source_files.h"

namespace symforge_internal {

class InlineeLines {
 public:
  // Adds the inlinee lines of a module, which is at position `index` of the list that `sources` was
  // gathered from. An existing entry is kept. Throws pdb_exception for a table of an unknown kind
  // and what ModuleStream::readModule() throws; the entries before the fault are kept.
  void resolveInlineFunctions(const ModuleStream& module, size_t index, const SourceFiles& sources);

  // Number of the file and source line of an inlinee; zeros when no table has it.
  void locateType(uint32_t inlinee, uint32_t& file_id, uint32_t& line) const;

 private:
  struct Line {
    uint32_t file_id = 0;  // number of FILE lines
    uint32_t line = 0;
  };

  FirstWinsMap<Line> m_lines;
};

}  // namespace symforge_internal
