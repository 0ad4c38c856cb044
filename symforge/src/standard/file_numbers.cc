#include "symforge/src/standard/file_numbers.h"

namespace symforge_internal {

uint32_t FileNumbers::lookUp(size_t module, uint32_t offset) const {
  uint32_t position;
  if (!m_sources.findPosition(module, offset, position)) return kNoFile;
  return nameOf(position + 1).empty() ? kNoFile : position + 1;
}

std::string_view FileNumbers::nameOf(uint32_t file) const {
  std::string_view name;
  m_names.find(m_sources.nameOffset(file - 1), name);
  return name;
}

void FileNumbers::print(TextBuffer& out) const {
  constexpr size_t kNumbers = 32;
  for (size_t i = 0; i < m_used.size(); ++i) {
    const std::string_view name = nameOf(m_used[i]);
    LineWriter line(out, kNumbers + name.size());
    line.str("FILE ").dec(i + 1).chr(' ').str(name).chr('\n');
  }
}

}  // namespace symforge_internal
