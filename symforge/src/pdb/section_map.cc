#include "symforge/src/pdb/section_map.h"

#include <algorithm>
#include <cstdio>

#include "base/limits.h"
#include "common/symbol_text.h"

namespace symforge_internal {

void SectionMap::readSectionHeaders(const MsfFile& file, uint16_t headerStream,
                                    SectionHeaders& headers) {
  const StreamPair& stream = file.getStream(headerStream);
  StreamReader reader(stream, file.pages());
  while (reader.getOffset() < stream.size) {
    if (headers.size() == limits::kSections) throw LimitExceeded("Too many sections");
    headers.push_back(*reader.read<IMAGE_SECTION_HEADER>());
  }
}

void SectionMap::readSections(const MsfFile& file, uint16_t headerStream) {
  if (headerStream != kNoStream) readSectionHeaders(file, headerStream, sections);
}

// The table for the opposite direction is not read, but the map is used only when that table
// exists.
void SectionMap::readOMAPData(const MsfFile& file, uint16_t orig_section_idx, uint16_t omap_to_id,
                              uint16_t omap_from_id) {
  if (orig_section_idx != kNoStream) readSectionHeaders(file, orig_section_idx, omap_sections);
  if (omap_from_id != kNoStream && omap_to_id != kNoStream)
    readOMAPDataDirection(file, omap_from_id);
}

// An unordered table is reported and used: a lookup returns what a binary search finds.
void SectionMap::readOMAPDataDirection(const MsfFile& file, uint16_t omap_stream_id) {
  const StreamPair& stream = file.getStream(omap_stream_id);
  if (stream.size == 0) return;
  StreamReader reader(stream, file.pages());
  omap_from.reserve(stream.size / sizeof(OmapEntry));
  while (reader.getOffset() < stream.size) omap_from.push_back(*reader.read<OmapEntry>());

  const auto byFirst = [](const OmapEntry& a, const OmapEntry& b) { return a.first < b.first; };
  if (std::is_sorted(omap_from.begin(), omap_from.end(), byFirst)) return;
  std::fprintf(stderr, "Encountered unordered omap section: %u. Attempting a fix-up.",
               uint32_t{omap_stream_id});
}

// The map is piecewise: an entry shifts all addresses from its `first` up to the next entry's.
// Addresses below the first entry do not change.
uint32_t SectionMap::mapThroughOmap(uint32_t rva) const {
  const auto above = entryAbove(rva);
  if (above == omap_from.begin()) return rva;
  const OmapEntry& entry = *(above - 1);
  return rva + entry.second - entry.first;
}

std::vector<OmapEntry>::const_iterator SectionMap::entryAbove(uint32_t rva) const {
  return std::upper_bound(
      omap_from.begin(), omap_from.end(), rva,
      [](uint32_t wanted, const OmapEntry& entry) { return wanted < entry.first; });
}

// In an unordered table the next entry need not be above the address.
SectionMap::MovedCode SectionMap::movedCode(uint32_t rva) const {
  const auto above = entryAbove(rva);
  const bool ends = above != omap_from.end() && above->first > rva;
  const bool removed = above != omap_from.begin() && (above - 1)->second == 0;
  return {ends ? uint32_t{above->first} : UINT32_MAX, mapThroughOmap(rva), removed};
}

void SectionMap::printSections(TextBuffer& out) const {
  uint32_t number = 0;
  for (const IMAGE_SECTION_HEADER& section : sections) {
    append_line(out, SectionFields{++number, section.VirtualAddress, section.SizeOfRawData,
                                   uint32_t{section.Characteristics}});
  }
}

}  // namespace symforge_internal
