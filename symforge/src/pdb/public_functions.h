// PublicFunctions: the public function symbols of a PDB by address.

#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "base/first_wins_map.h"
#include "symforge/src/pdb/section_map.h"

namespace symforge_internal {

struct PublicFunction {
  DataPtr<char> name;      // up to its first NUL; demangled if there is a demangler
  uint32_t rva = 0;        // the raw offset where segment is 0
  uint16_t segment = 0;    // section number from 1; 0: none
  bool decorated = false;  // the name has a prefix of names with the size of the parameters
  bool covered = false;    // a function of some module has this address
  bool shared = false;     // another public function with another name has it, too
};

class PublicFunctions {
 public:
  // Adds the public functions of the symbol record stream, with RVAs from `sections`; those in a
  // section that the image does not have are dropped. Names may refer to the mapping. Throws
  // std::out_of_range for a stream that does not exist, pdb_recoverable_exception for one that ends
  // too early.
  void getGlobalFunctions(const MsfFile& file, uint16_t symRecStream, const SectionMap& sections);

  // An existing symbol at the RVA is kept.
  void insert(PublicFunction&& symbol);

  // Null when no public function has that RVA. Valid until the next insert.
  PublicFunction* find(uint32_t rva) { return m_symbols.find(rva); }

  // See FirstWinsMap: prefetch what find() needs.
  void prefetchIndex(uint32_t rva) const { m_symbols.prefetch_index(rva); }
  void prefetchSymbol(uint32_t rva) const { m_symbols.prefetch_value(rva); }

  // What is left for visits of names, of the limits of the file.
  Allowance& visited() { return m_file != nullptr ? m_file->budget().visited : m_unlimited; }

  // All symbols, in the order in which they were added.
  std::vector<PublicFunction>& symbols() { return m_symbols.values(); }

 private:
  FirstWinsMap<PublicFunction> m_symbols;  // by RVA
  const MsfFile* m_file = nullptr;         // null before getGlobalFunctions()
  Allowance m_unlimited;
};

}  // namespace symforge_internal
