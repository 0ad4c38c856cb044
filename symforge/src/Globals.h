// Globals: the public function symbols of a PDB by address.

#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include "symforge/src/StreamReader.h"

namespace google_breakpad {

struct PublicFunction {
  DataPtr<char> name;   // up to its first NUL; demangled when a demangler was there
  uint32_t offset = 0;  // RVA; the raw offset where segment is 0
  uint32_t segment = 0;
  bool covered = false;  // a function of some module stands for it
};

class Globals {
 public:
  // The first symbol of an offset stays.
  void insert(PublicFunction&& symbol) {
    if (m_positions.emplace(symbol.offset, static_cast<uint32_t>(m_symbols.size())).second)
      m_symbols.push_back(std::move(symbol));
  }

  // Null when no public function has that offset. Valid until the next insert.
  const PublicFunction* find(uint32_t offset) const {
    const auto found = m_positions.find(offset);
    return found == m_positions.end() ? nullptr : &m_symbols[found->second];
  }
  PublicFunction* find(uint32_t offset) {
    return const_cast<PublicFunction*>(std::as_const(*this).find(offset));
  }

  size_t size() const { return m_symbols.size(); }

  // Calls `visit` with each symbol, in the order of the hash table: that order decides which of two
  // records with equal keys comes first in the output.
  template <typename Visit>
  void forEach(Visit visit) {
    for (const auto& entry : m_positions) visit(m_symbols[entry.second]);
  }

 private:
  std::vector<PublicFunction> m_symbols;
  std::unordered_map<uint32_t, uint32_t> m_positions;  // by offset
};

}  // namespace google_breakpad
