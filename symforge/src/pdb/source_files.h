// The numbers of source files. Modules name a file by the offset of its entry in their own file
// checksums; the symbol file names it by a number that is good for the whole PDB.

#pragma once

#include <cstdint>
#include <vector>

#include "base/open_addressing_index.h"

namespace symforge_internal {

// A source file of the whole PDB.
struct UniqueSrc {
  uint32_t id = 0;       // its number in FILE lines, from 1
  uint32_t name = 0;     // offset of its path in the /NAMES string area
  bool visited = false;  // the FILE lines have dealt with it
};

// All source files, one for each distinct name, in the order of their first appearance.
class UniqueSrcFiles {
 public:
  // Position of the file named `name`, which gets the number `id` if it is new.
  uint32_t add(uint32_t name, uint32_t id);

  UniqueSrc& operator[](uint32_t position) { return m_files[position]; }
  const UniqueSrc& operator[](uint32_t position) const { return m_files[position]; }

 private:
  std::vector<UniqueSrc> m_files;
  OpenAddressingIndex m_index;  // by name
};

// The files of one module by the offset of their entry in its file checksums; the first entry of an
// offset stays. Filled first, then sealed, then read.
class SrcFileIndex {
 public:
  struct Entry {
    uint32_t offset = 0;
    uint32_t file = 0;  // position in UniqueSrcFiles
  };

  void add(uint32_t offset, uint32_t file) { m_entries.push_back({offset, file}); }
  // Brings the entries into the order of their offsets and drops repeated ones.
  void seal();

  // The file's position in UniqueSrcFiles. False when the module has no file at that offset.
  bool find(uint32_t offset, uint32_t& file) const;

  std::vector<Entry>::const_iterator begin() const { return m_entries.begin(); }
  std::vector<Entry>::const_iterator end() const { return m_entries.end(); }

 private:
  std::vector<Entry> m_entries;
};

}  // namespace symforge_internal
