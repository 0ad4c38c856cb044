// What the builders of hostile files share.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "builders/pdb_builder.h"

namespace builders {

inline constexpr uint32_t kSectionBytes = 0x1000000;

// How many records of a size fit in a file; at least one.
inline uint32_t count_of(size_t size, size_t record) {
  return static_cast<uint32_t>(std::max<size_t>(size / record, 1));
}

// A PDB with one section of code.
inline PdbBuilder with_section(uint32_t page_size = 512) {
  PdbBuilder pdb(page_size);
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = kSectionBytes});
  return pdb;
}

inline std::string built(PdbBuilder& pdb) { return pdb.build().bytes; }

}  // namespace builders
