// CrossModuleItems: items (inlined functions) that a module names by way of another module, as
// modules do that were compiled at link time.
//
// Such a number has its top bit set: bits 20 to 30 select a list of the module's imports, and bits
// 0 to 19 an entry in it. The entry is the item's number in the module that exports it, whose
// exports map it to an index of the id records. Lists name the exporting module in lower case.

#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/first_wins_map.h"
#include "base/sealed_map.h"
#include "base/text_hash.h"
#include "symforge/src/pdb/module_stream.h"
#include "symforge/src/pdb/name_stream.h"

namespace symforge_internal {

class CrossModuleItems {
 public:
  // Both must outlive this.
  CrossModuleItems(const ModuleStreams& modules, const NameStream& names)
      : m_modules(modules), m_names(names), m_tables(modules.size()) {}

  // The index of an item that the module at position `module` names; 0 when it leads nowhere.
  uint32_t find(uint32_t module, uint32_t item) {
    return (item & kCrossModule) == 0 ? item : follow(module, item);
  }

 private:
  static constexpr uint32_t kCrossModule = 0x80000000;
  static constexpr uint32_t kNoModule = 0xFFFFFFFF;

  struct ImportList {
    uint32_t exporter = kNoModule;  // position in the list of modules
    std::vector<uint32_t> items;
  };
  struct LocalOf {
    uint32_t operator()(const CV_CrossScopeExport& item) const { return item.local; }
  };
  struct Tables {
    bool read = false;
    std::vector<ImportList> imports;
    SealedMap<CV_CrossScopeExport, LocalOf> exports;
  };

  uint32_t follow(uint32_t module, uint32_t item);
  const Tables& tablesOf(uint32_t module);
  void readImports(const ModuleStream& module, Tables& tables);
  static void readExports(const ModuleStream& module, Tables& tables);
  uint32_t findModule(uint32_t nameOffset);
  uint32_t findModuleByName(uint32_t nameOffset);

  const ModuleStreams& m_modules;
  const NameStream& m_names;
  std::vector<Tables> m_tables;                                         // by module
  std::unordered_map<std::string, uint32_t, TextHash> m_modulesByName;  // in lower case
  FirstWinsMap<uint32_t> m_found;  // modules by offset of their name
};

}  // namespace symforge_internal
