// Source files: from the modules' file checksums to FILE lines.

#include "symforge/src/pdb/source_files.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

uint32_t UniqueSrcFiles::add(uint32_t name, uint32_t id) {
  uint32_t& place = m_index[name];
  if (place == 0) {
    m_files.push_back({id, name, false});
    place = static_cast<uint32_t>(m_files.size());
  }
  return place - 1;
}

void SrcFileIndex::seal() {
  const auto before = [](const Entry& a, const Entry& b) { return a.offset < b.offset; };
  const auto same = [](const Entry& a, const Entry& b) { return a.offset == b.offset; };
  if (!std::is_sorted(m_entries.begin(), m_entries.end(), before))
    std::stable_sort(m_entries.begin(), m_entries.end(), before);
  m_entries.erase(std::unique(m_entries.begin(), m_entries.end(), same), m_entries.end());
  m_entries.shrink_to_fit();
}

bool SrcFileIndex::find(uint32_t offset, uint32_t& file) const {
  const auto found =
      std::lower_bound(m_entries.begin(), m_entries.end(), offset,
                       [](const Entry& entry, uint32_t wanted) { return entry.offset < wanted; });
  if (found == m_entries.end() || found->offset != offset) return false;
  file = found->file;
  return true;
}

// Every entry takes a number, also one of a file that has its number already: the numbers of files
// have gaps.
void PDBParser::getModuleFiles(const DBIModuleInfo* module, uint32_t& id, UniqueSrcFiles& unique,
                               SrcFileIndex& fileIndices) {
  readModule(module, kFileChecksumsSubsection, [&](StreamReader& reader, int32_t, uint32_t end) {
    const uint32_t payload = reader.getOffset();
    while (reader.getOffset() < end) {
      const uint32_t offset = reader.getOffset() - payload;
      const DataPtr<CVFileChecksum> entry = reader.read<CVFileChecksum>();
      fileIndices.add(offset, unique.add(entry->name, id++));
      reader.seek(reader.getOffset() + entry->len);
      reader.align(4);
    }
  });
  fileIndices.seal();
}

void PDBParser::gatherFiles(Modules& modules, UniqueSrcFiles& unique) {
  uint32_t id = 1;
  for (Module& module : modules) {
    if (module.info->stream >= 0)
      getModuleFiles(module.info.data, id, unique, module.srcIndex);
    else
      std::fputs("Invalid module found gathering files...\n", stderr);
  }
}

// The lines come in the order of first sight, which need not be that of the numbers. A file without
// a name leaves its number unused.
void PDBParser::printFiles(const Modules& modules, UniqueSrcFiles& unique, const NameStream& names,
                           FileMod* fileMod, TextBuffer& out) {
  constexpr size_t kRoom = sizeof("FILE 4294967295 \n");
  for (const Module& module : modules) {
    for (const SrcFileIndex::Entry& entry : module.srcIndex) {
      UniqueSrc& file = unique[entry.file];
      if (file.visited) continue;
      file.visited = true;
      std::string_view name;
      if (!names.find(file.name, name)) continue;
      if (fileMod != nullptr) name = (*fileMod)(name.data(), name.size());
      LineWriter(out, kRoom + name.size()).str("FILE ").dec(file.id).chr(' ').str(name).chr('\n');
    }
  }
}

}  // namespace symforge_internal
