// SectionMap: the sections of the image, and from section and offset to an RVA.
//
// A PDB names code by section number (from 1) and offset. Where the image was rewritten after
// linking, offsets are those of the original sections, and an address map (OMAP) leads on to the
// final image.

#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/PDBHeaders.h"
#include "symforge/src/WinStructs.h"
#include "symforge/src/msf/msf_file.h"

namespace symforge_internal {

using SectionHeaders = std::vector<IMAGE_SECTION_HEADER>;

// Addresses are RVAs, 32 bits wide, and wrap.
class SectionMap {
 public:
  SectionMap() = default;
  // `original`: sections before the rewrite; empty: none. `omap`: see OmapEntry.
  explicit SectionMap(SectionHeaders headers, SectionHeaders original = {},
                      std::vector<OmapEntry> omap = {})
      : sections(std::move(headers)),
        omap_sections(std::move(original)),
        omap_from(std::move(omap)) {}

  // Read the section headers and what belongs to a rewrite; stream numbers are those of the debug
  // header, kNoStream for none. Throw std::out_of_range for a stream that does not exist and
  // pdb_exception for one that ends too early. An unordered address map is reported to standard
  // error and used.
  void readSections(const MsfFile& file, uint16_t headerStream);
  void readOMAPData(const MsfFile& file, uint16_t orig_section_idx, uint16_t omap_to_id,
                    uint16_t omap_from_id);

  // Number of sections of the final image.
  size_t count() const { return sections.size(); }

  // RVA of `address` bytes into section `section` (from 1); with section 0 `address` itself.
  // Throws std::out_of_range for a section that does not exist.
  uint32_t mapAddressOmap(uint32_t address, uint32_t section) const {
    return section == 0 ? address : finalRva(address + sectionBase(section));
  }

  // The two halves of mapAddressOmap: the RVA where a section begins in the image as it was linked,
  // and the RVA in the final image for one in the linked image.
  uint32_t sectionBase(uint32_t section) const {
    return (omap_sections.empty() ? sections : omap_sections).at(section - 1).VirtualAddress;
  }
  uint32_t finalRva(uint32_t rva) const { return isRewritten() ? mapThroughOmap(rva) : rva; }

  // Whether finalRva() changes addresses.
  bool isRewritten() const { return !omap_from.empty(); }

  // Whether sectionBase() has an answer.
  bool hasSection(uint32_t section) const {
    return section != 0 && section <= (omap_sections.empty() ? sections : omap_sections).size();
  }

  // Code that the rewrite moved as a whole.
  struct MovedCode {
    uint32_t end;  // RVA in the linked image, one past the last byte; UINT32_MAX: no end
    uint32_t rva;  // of the code in the final image
    bool removed;  // it is not in the final image
  };
  // The code from `rva` of the linked image on.
  MovedCode movedCode(uint32_t rva) const;

  // Appends an INFO SECTION line for each section of the final image.
  void printSections(TextBuffer& out) const;

 private:
  static void readSectionHeaders(const MsfFile& file, uint16_t headerStream,
                                 SectionHeaders& headers);
  void readOMAPDataDirection(const MsfFile& file, uint16_t omap_stream_id);
  uint32_t mapThroughOmap(uint32_t rva) const;
  std::vector<OmapEntry>::const_iterator entryAbove(uint32_t rva) const;

  SectionHeaders sections;           // of the final image
  SectionHeaders omap_sections;      // before a rewrite of the image; empty: none
  std::vector<OmapEntry> omap_from;  // in file order
};

}  // namespace symforge_internal
