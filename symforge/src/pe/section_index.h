// SectionIndex: finds the section of an RVA in an image with many sections.
//
// Sections may overlap; the first one in the order of the headers counts. Images have a few
// sections, which are faster to search one by one, but a file can have 65,535 of them and as many
// lookups as it has records of unwind data.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "symforge/src/WinStructs.h"

namespace symforge_internal {

class SectionIndex {
 public:
  static constexpr size_t kNone = SIZE_MAX;

  SectionIndex() = default;
  explicit SectionIndex(std::span<const IMAGE_SECTION_HEADER> sections);

  // The index of the first section with the byte at `rva` in the file, or kNone.
  size_t find(uint32_t rva) const;

 private:
  // From `start` up to the start of the next part.
  struct Part {
    uint32_t start;
    size_t section;
  };
  std::vector<Part> m_parts;  // ascending
};

}  // namespace symforge_internal
