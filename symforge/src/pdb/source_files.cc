#include "symforge/src/pdb/source_files.h"

#include <string_view>

#include "base/warning_limit.h"
#include "common/symbol_text.h"

namespace symforge_internal {

// Every entry uses up a number, even an entry of a file that has one already, so the numbers of
// files have gaps.
void SourceFiles::getModuleFiles(const ModuleStream& module, SrcFileIndex& fileIndices) {
  Allowance& entries = module.budget().fileChecksums;
  module.readModule(kFileChecksumsSubsection, [&](StreamReader& reader, uint32_t end) {
    const uint32_t payload = reader.getOffset();
    while (reader.getOffset() < end) {
      entries.spend(1);
      const uint32_t offset = reader.getOffset() - payload;
      const DataPtr<CVFileChecksum> entry = reader.read<CVFileChecksum>();
      fileIndices.add({offset, m_unique.insert(entry->name, {m_nextId++, entry->name, false})});
      reader.seek(reader.getOffset() + entry->len);
      reader.align(4);
    }
  });
  fileIndices.seal();
  fileIndices.shrink_to_fit();
}

void SourceFiles::gatherFiles(const ModuleStreams& modules) {
  m_modules.resize(modules.size());
  WarningLimit noStream;
  for (size_t i = 0; i < modules.size(); ++i) {
    if (modules[i].hasStream()) {
      getModuleFiles(modules[i], m_modules[i]);
    } else {
      noStream.put("Invalid module found gathering files...\n");
    }
  }
}

bool SourceFiles::find(size_t module, uint32_t offset, uint32_t& number) const {
  uint32_t position;
  if (!findPosition(module, offset, position)) return false;
  number = m_unique.values()[position].id;
  return true;
}

bool SourceFiles::findPosition(size_t module, uint32_t offset, uint32_t& position) const {
  const Entry* entry = m_modules[module].find(offset);
  if (entry == nullptr) return false;
  position = entry->file;
  return true;
}

// The lines are in the order of the files' first entries, which need not be that of the numbers. A
// file without a name leaves its number unused.
void SourceFiles::printFiles(const NameStream& names, FileMod* fileMod, TextBuffer& out) {
  for (const SrcFileIndex& module : m_modules) {
    for (const Entry& entry : module) {
      UniqueSrc& file = m_unique.values()[entry.file];
      if (file.visited) continue;
      file.visited = true;
      std::string_view name;
      if (!names.find(file.name, name)) continue;
      if (fileMod != nullptr) name = (*fileMod)(name.data(), name.size());
      append_line(out, FileFields{file.id, name});
    }
  }
}

}  // namespace symforge_internal
