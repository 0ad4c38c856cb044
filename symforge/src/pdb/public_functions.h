// PublicFunctions: the public function symbols of a PDB by address.

#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "base/open_addressing_index.h"
#include "symforge/src/StreamReader.h"

namespace symforge_internal {

struct PublicFunction {
  DataPtr<char> name;      // up to its first NUL; demangled when a demangler was there
  uint32_t offset = 0;     // RVA; the raw offset where segment is 0
  uint16_t segment = 0;    // section number from 1; 0: none
  bool decorated = false;  // the name begins like one that tells the size of the parameters
  bool covered = false;    // a function of some module stands for it
};

class PublicFunctions {
 public:
  // The first symbol of an offset stays.
  void insert(PublicFunction&& symbol) {
    uint32_t& place = m_index[symbol.offset];
    if (place != 0) return;
    m_symbols.push_back(std::move(symbol));
    place = static_cast<uint32_t>(m_symbols.size());
  }

  // Null when no public function has that offset. Valid until the next insert.
  PublicFunction* find(uint32_t offset) {
    const uint32_t place = m_index.find(offset);
    return place == 0 ? nullptr : &m_symbols[place - 1];
  }

  // All of them, in the order in which they came.
  std::vector<PublicFunction>& symbols() { return m_symbols; }

 private:
  std::vector<PublicFunction> m_symbols;
  OpenAddressingIndex m_index;  // by offset
};

}  // namespace symforge_internal
