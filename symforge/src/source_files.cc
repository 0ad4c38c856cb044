#include "symforge/src/SourceFiles.h"

#include <algorithm>

namespace google_breakpad {

uint32_t UniqueSrcFiles::add(uint32_t name, uint32_t id) {
  const auto [entry, isNew] = m_positions.emplace(name, static_cast<uint32_t>(m_files.size()));
  if (isNew) m_files.push_back({id, name, false});
  return entry->second;
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

}  // namespace google_breakpad
