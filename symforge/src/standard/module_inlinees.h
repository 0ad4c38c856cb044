// ModuleInlinees: where inlined functions are defined, by module and item identifier (inlinee).
//
// Functions of one name and type share an item, also where they are different functions of two
// modules, so that each module's own table counts.

#pragma once

#include <cstdint>
#include <vector>

#include "base/sealed_map.h"
#include "symforge/src/pdb/module_stream.h"

namespace symforge_internal {

struct InlineeStart {
  uint32_t inlinee = 0;
  uint32_t file = 0;  // offset of the file's entry in the module's file checksums
  uint32_t line = 0;
};

class ModuleInlinees {
 public:
  // `modules` must outlive this.
  explicit ModuleInlinees(const ModuleStreams& modules)
      : m_modules(modules), m_tables(modules.size()), m_read(modules.size()) {}

  // Reads the tables of the modules at `first` ... `end` - 1. Several threads can read different
  // ones, and find() can be called by several when all were read.
  void read(size_t first, size_t end) {
    for (; first < end; ++first) read(static_cast<uint32_t>(first));
  }

  // Null when the module has no entry. The module's table is read when it is first asked for; what
  // cannot be read of it is left out.
  const InlineeStart* find(uint32_t module, uint32_t inlinee) {
    if (!m_read[module]) read(module);
    return m_tables[module].find(inlinee);
  }

 private:
  struct InlineeOf {
    uint32_t operator()(const InlineeStart& start) const { return start.inlinee; }
  };

  void read(uint32_t module);

  const ModuleStreams& m_modules;
  std::vector<SealedMap<InlineeStart, InlineeOf>> m_tables;  // by module
  std::vector<uint8_t> m_read;  // not bits, which threads could not set independently
};

}  // namespace symforge_internal
