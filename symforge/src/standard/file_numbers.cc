#include "symforge/src/standard/file_numbers.h"

#include <string_view>

namespace symforge_internal {

uint32_t FileNumbers::lookUp(size_t module, uint32_t offset) const {
  uint32_t file = kNoFile;
  uint32_t nameOffset = 0;
  std::string_view name;
  if (!m_sources.find(module, offset, file) || !m_sources.nameOf(file, nameOffset)) return kNoFile;
  return m_names.find(nameOffset, name) && !name.empty() ? file : kNoFile;
}

void FileNumbers::print(TextBuffer& out) const {
  constexpr size_t kNumbers = 32;
  for (size_t i = 0; i < m_used.size(); ++i) {
    uint32_t nameOffset = 0;
    std::string_view name;
    m_sources.nameOf(m_used[i], nameOffset);
    m_names.find(nameOffset, name);
    LineWriter line(out, kNumbers + name.size());
    line.str("FILE ").dec(i + 1).chr(' ').str(name).chr('\n');
  }
}

}  // namespace symforge_internal
