#include "symforge/src/standard/cross_module_items.h"

#include <algorithm>
#include <string_view>

namespace symforge_internal {

namespace {

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return lower;
}

}  // namespace

uint32_t CrossModuleItems::follow(uint32_t module, uint32_t item) {
  constexpr uint32_t kListShift = 20;
  const uint32_t list = (item & ~kCrossModule) >> kListShift;
  const uint32_t entry = item & ((uint32_t{1} << kListShift) - 1);
  const Tables& importer = tablesOf(module);
  if (list >= importer.imports.size() || entry >= importer.imports[list].items.size()) return 0;
  const ImportList& imports = importer.imports[list];
  if (imports.exporter == kNoModule) return 0;
  const CV_CrossScopeExport* found = tablesOf(imports.exporter).exports.find(imports.items[entry]);
  return found != nullptr ? uint32_t{found->global} : 0;
}

// What cannot be read is left out.
const CrossModuleItems::Tables& CrossModuleItems::tablesOf(uint32_t module) {
  Tables& tables = m_tables[module];
  if (tables.read) return tables;
  tables.read = true;
  try {
    readImports(m_modules[module], tables);
    readExports(m_modules[module], tables);
  } catch (const pdb_exception&) {
    // The entries so far are kept.
  }
  tables.exports.seal();
  return tables;
}

// Items have 11 bits for the number of a list.
void CrossModuleItems::readImports(const ModuleStream& module, Tables& tables) {
  constexpr size_t kMostLists = 1 << 11;
  module.readModule(kImportsSubsection, [&](StreamReader& reader, uint32_t end) {
    while (reader.getOffset() < end) {
      const DataPtr<CV_CrossScopeImports> head = reader.read<CV_CrossScopeImports>();
      const uint64_t bytes = uint64_t{head->count} * sizeof(le_uint32);
      if (bytes > end - reader.getOffset() || tables.imports.size() == kMostLists) return;
      ImportList& list = tables.imports.emplace_back();
      list.exporter = findModule(head->module);
      if (bytes == 0) continue;
      const auto items = reader.read<le_uint32>(static_cast<uint32_t>(bytes));
      list.items.assign(items.data, items.data + head->count);
    }
  });
}

void CrossModuleItems::readExports(const ModuleStream& module, Tables& tables) {
  module.readModule(kExportsSubsection, [&](StreamReader& reader, uint32_t end) {
    while (end - reader.getOffset() >= sizeof(CV_CrossScopeExport) && reader.getOffset() < end) {
      tables.exports.add(*reader.read<CV_CrossScopeExport>());
    }
  });
}

uint32_t CrossModuleItems::findModule(uint32_t nameOffset) {
  if (const uint32_t* known = m_found.find(nameOffset)) return *known;
  const uint32_t found = findModuleByName(nameOffset);
  m_found.insert(nameOffset, uint32_t{found});
  return found;
}

uint32_t CrossModuleItems::findModuleByName(uint32_t nameOffset) {
  if (m_modulesByName.empty()) {
    for (uint32_t i = 0; i < m_modules.size(); ++i) {
      m_modulesByName.emplace(lowerCase(m_modules[i].name()), i);
    }
  }
  std::string_view name;
  if (!m_names.find(nameOffset, name)) return kNoModule;
  const auto found = m_modulesByName.find(lowerCase(name));
  return found == m_modulesByName.end() ? kNoModule : found->second;
}

}  // namespace symforge_internal
