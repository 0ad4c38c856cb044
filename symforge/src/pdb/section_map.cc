// Section headers, and the address map (OMAP) of images that were rewritten after linking.

#include <algorithm>
#include <cstdio>

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

void PDBParser::readSectionHeaders(uint32_t headerStream, SectionHeaders& headers) {
  const StreamPair& stream = getStream(headerStream);
  StreamReader reader(stream, m_file.pages());
  while (reader.getOffset() < stream.size) headers.push_back(*reader.read<IMAGE_SECTION_HEADER>());
}

void PDBParser::readSections(const DBIDebugHeader& debugHeader) {
  if (debugHeader.sectionHdr != kNoStream) readSectionHeaders(debugHeader.sectionHdr, sections);
}

// The table for the opposite direction is not needed; that it exists is what makes the map count.
void PDBParser::readOMAPData(uint32_t orig_section_idx, uint32_t omap_to_id,
                             uint32_t omap_from_id) {
  if (orig_section_idx != kNoStream) readSectionHeaders(orig_section_idx, omap_sections);
  if (omap_from_id != kNoStream && omap_to_id != kNoStream)
    readOMAPDataDirection(omap_from_id, omap_from);
}

// An unordered table is announced and used as it is: its lookups give what the binary search's path
// through it gives.
void PDBParser::readOMAPDataDirection(uint32_t omap_stream_id, std::vector<OmapEntry>& omap_data) {
  const StreamPair& stream = getStream(omap_stream_id);
  if (stream.size == 0) return;
  StreamReader reader(stream, m_file.pages());
  omap_data.reserve(stream.size / sizeof(OmapEntry));
  while (reader.getOffset() < stream.size) omap_data.push_back(*reader.read<OmapEntry>());

  const auto byFirst = [](const OmapEntry& a, const OmapEntry& b) { return a.first < b.first; };
  if (std::is_sorted(omap_data.begin(), omap_data.end(), byFirst)) return;
  std::fprintf(stderr, "Encountered unordered omap section: %u. Attempting a fix-up.",
               omap_stream_id);
}

// The map is piecewise: an entry shifts all addresses from its `first` up to the next entry's. What
// lies below the first entry stays.
uint32_t PDBParser::throughOmap(uint32_t rva) const {
  const auto above = std::upper_bound(
      omap_from.begin(), omap_from.end(), rva,
      [](uint32_t wanted, const OmapEntry& entry) { return wanted < entry.first; });
  if (above == omap_from.begin()) return rva;
  const OmapEntry& entry = *(above - 1);
  return rva + entry.second - entry.first;
}

}  // namespace symforge_internal
