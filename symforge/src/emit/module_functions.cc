#include "symforge/src/emit/module_functions.h"

#include <cassert>
#include <utility>

namespace symforge_internal {

namespace {

class FunctionReader {
 public:
  FunctionReader(const SectionMap& sections, Functions& functions, FileBudget& budget)
      : m_sections(sections), m_functions(functions), m_budget(budget) {}

  FunctionRecord& readProcedure(StreamReader& reader) {
    const DataPtr<ProcSym32> symbol = reader.read<ProcSym32>();
    FunctionRecord& func = add(reader.readString(), symbol->seg, symbol->off);
    func.length = symbol->len;
    func.typeIndex = symbol->typind;
    return func;
  }

  // A thunk outside any other symbol has no length and is printed as a PUBLIC line. A nested one is
  // printed as a FUNC line without a type.
  void readThunk(StreamReader& reader) {
    const DataPtr<ThunkSym32> symbol = reader.read<ThunkSym32>();
    FunctionRecord& func = add(reader.readString(), symbol->seg, symbol->off);
    func.length = symbol->parent != 0 ? uint32_t{symbol->len} : 0;
  }

 private:
  FunctionRecord& add(DataPtr<char>&& name, uint32_t segment, uint32_t offset) {
    m_budget.functions.spend(1);
    FunctionRecord& func = m_functions.emplace_back();
    func.name = std::move(name);
    func.segment = segment;
    func.rva = m_sections.mapAddressOmap(offset, segment);
    func.pre_omap_offset = offset;
    return func;
  }

  const SectionMap& m_sections;
  Functions& m_functions;
  FileBudget& m_budget;
};

// Inline sites belong to the last procedure before them, unless a thunk is between: the end of the
// procedure is ignored.
void readModule(const ModuleStream& module, const SectionMap& sections, InlineSites* sites,
                Functions& functions) {
  FunctionReader functionReader(sections, functions, module.budget());
  FunctionRecord* current_function = nullptr;
  constexpr SymbolKinds kKinds{S_LPROC32, S_GPROC32, S_THUNK32, S_INLINESITE, S_INLINESITE_END};
  module.forEachSymbol(
      kKinds, [&](const SymbolHeader& symbol, StreamReader& body, uint32_t offset) {
        switch (symbol.type) {
          case S_LPROC32:
          case S_GPROC32:
            current_function = &functionReader.readProcedure(body);
            if (sites != nullptr) sites->beginFunction(module.streamNumber(), *current_function);
            break;
          case S_THUNK32:
            functionReader.readThunk(body);
            current_function = nullptr;
            break;
          case S_INLINESITE:
            if (sites == nullptr) break;
            assert(current_function != nullptr);
            sites->openSite(readInlineSite(body, symbol.size).inlinee, offset, *current_function);
            break;
          case S_INLINESITE_END:
            if (sites == nullptr) break;
            assert(current_function != nullptr);
            sites->closeSite(*current_function);
            break;
          default:
            break;
        }
      });
}

}  // namespace

void getModuleFunctions(std::span<const ModuleStream> modules, const SectionMap& sections,
                        InlineSites* sites, Functions& functions) {
  const SymbolRoom room = roomForSymbols(modules);
  functions.reserve(room.functions);
  if (sites != nullptr) sites->reserve(room.siteEntries);
  for (const ModuleStream& module : modules) readModule(module, sections, sites, functions);
}

}  // namespace symforge_internal
