#include "symforge/src/pe/section_index.h"

#include <algorithm>
#include <functional>
#include <queue>

namespace symforge_internal {

SectionIndex::SectionIndex(std::span<const IMAGE_SECTION_HEADER> sections) {
  const auto end_of = [&](size_t i) {
    return uint64_t{sections[i].VirtualAddress} + sections[i].SizeOfRawData;
  };
  std::vector<size_t> by_start(sections.size());
  std::vector<uint64_t> bounds;
  bounds.reserve(2 * sections.size());
  for (size_t i = 0; i < sections.size(); ++i) {
    by_start[i] = i;
    bounds.push_back(sections[i].VirtualAddress);
    bounds.push_back(end_of(i));
  }
  std::sort(by_start.begin(), by_start.end(), [&](size_t a, size_t b) {
    return sections[a].VirtualAddress < sections[b].VirtualAddress;
  });
  std::sort(bounds.begin(), bounds.end());
  bounds.erase(std::unique(bounds.begin(), bounds.end()), bounds.end());

  std::priority_queue<size_t, std::vector<size_t>, std::greater<>> open;  // the first on top
  auto next = by_start.begin();
  for (const uint64_t bound : bounds) {
    if (bound > UINT32_MAX) break;
    for (; next != by_start.end() && sections[*next].VirtualAddress == bound; ++next) {
      open.push(*next);
    }
    while (!open.empty() && end_of(open.top()) <= bound) open.pop();
    const size_t section = open.empty() ? kNone : open.top();
    m_parts.push_back({static_cast<uint32_t>(bound), section});
  }
}

size_t SectionIndex::find(uint32_t rva) const {
  const auto after =
      std::upper_bound(m_parts.begin(), m_parts.end(), rva,
                       [](uint32_t address, const Part& part) { return address < part.start; });
  return after == m_parts.begin() ? kNone : (after - 1)->section;
}

}  // namespace symforge_internal
