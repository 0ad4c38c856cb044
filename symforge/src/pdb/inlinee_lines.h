// Where inlined functions are defined: source file and line by item identifier, for all modules of
// a PDB.

#pragma once

#include <cstdint>
#include <vector>

#include "base/open_addressing_index.h"

namespace symforge_internal {

struct InlineeLine {
  uint32_t file_id = 0;  // number of FILE lines
  uint32_t offset = 0;   // source line
};

class InlineeLineMap {
 public:
  bool contains(uint32_t inlinee) const { return m_index.find(inlinee) != 0; }

  // The first entry of an inlinee stays.
  void insert(uint32_t inlinee, const InlineeLine& line) {
    uint32_t& place = m_index[inlinee];
    if (place != 0) return;
    m_lines.push_back(line);
    place = static_cast<uint32_t>(m_lines.size());
  }

  // Null for an inlinee without an entry. Valid until the next insert.
  const InlineeLine* find(uint32_t inlinee) const {
    const uint32_t place = m_index.find(inlinee);
    return place == 0 ? nullptr : &m_lines[place - 1];
  }

 private:
  OpenAddressingIndex m_index;
  std::vector<InlineeLine> m_lines;
};

}  // namespace symforge_internal
