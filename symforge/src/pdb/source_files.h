// SourceFiles: the numbers of source files. A module names a file by the offset of its entry in the
// module's file checksums; the symbol file names it by a number that is valid for the whole PDB.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/first_wins_map.h"
#include "base/sealed_map.h"
#include "base/text_buffer.h"
#include "symforge/src/pdb/file_mod.h"
#include "symforge/src/pdb/module_stream.h"
#include "symforge/src/pdb/name_stream.h"

namespace symforge_internal {

class SourceFiles {
 public:
  // Reads the file checksums of all modules. A module with a negative stream number is reported to
  // standard error and has no files. Throws what ModuleStream::readModule() throws. To be called
  // once.
  void gatherFiles(const ModuleStreams& modules);

  // The number of the file whose entry is at `offset` in the checksums of the module at position
  // `module` of the list. False when there is no entry.
  bool find(size_t module, uint32_t offset, uint32_t& number) const;

  // The same by position among all distinct files, which has no gaps, and the offset of the name of
  // such a file in the string area of /NAMES.
  bool findPosition(size_t module, uint32_t offset, uint32_t& position) const;
  uint32_t nameOffset(uint32_t position) const { return m_unique.values()[position].name; }

  // Appends a FILE line for each file that has a name. `fileMod` may be null. Throws what
  // NameStream::find() throws. To be called once.
  void printFiles(const NameStream& names, FileMod* fileMod, TextBuffer& out);

 private:
  // A source file of the whole PDB.
  struct UniqueSrc {
    uint32_t id = 0;       // its number in FILE lines, from 1
    uint32_t name = 0;     // offset of its path in the /NAMES string area
    bool visited = false;  // the FILE lines have dealt with it
  };
  struct Entry {
    uint32_t offset = 0;
    uint32_t file = 0;  // position in m_unique
  };
  struct OffsetOf {
    uint32_t operator()(const Entry& entry) const { return entry.offset; }
  };
  using SrcFileIndex = SealedMap<Entry, OffsetOf>;

  void getModuleFiles(const ModuleStream& module, SrcFileIndex& fileIndices);

  FirstWinsMap<UniqueSrc> m_unique;     // by name
  std::vector<SrcFileIndex> m_modules;  // by position in the list of modules
  uint32_t m_nextId = 1;
};

}  // namespace symforge_internal
