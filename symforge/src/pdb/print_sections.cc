// INFO SECTION lines.

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

// The numbers are those by which functions name their section.
void PDBParser::printSections(const SectionHeaders& headers, TextBuffer& out) {
  constexpr size_t kRoom = 128;
  uint32_t number = 0;
  for (const IMAGE_SECTION_HEADER& section : headers) {
    LineWriter line(out, kRoom);
    line.str("INFO SECTION ").hex(++number);
    line.str(" virtaddr ").hex(section.VirtualAddress);
    line.str(" rawsize ").hex(section.SizeOfRawData);
    line.str(" characteristics ").hex(section.Characteristics).chr('\n');
  }
}

}  // namespace symforge_internal
