// A module's symbols: procedures and thunks become functions, inline sites are noted with theirs.

#include <cassert>

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

FunctionRecord& PDBParser::addFunction(Functions& funcs, DataPtr<char>&& name, uint32_t segment,
                                       uint32_t offset) const {
  FunctionRecord& func = funcs.emplace_back();
  func.name = std::move(name);
  func.segment = segment;
  func.offset = m_sections.mapAddressOmap(offset, segment);
  func.pre_omap_offset = offset;
  return func;
}

FunctionRecord& PDBParser::readProcedure(StreamReader& reader, Functions& funcs) const {
  const DataPtr<ProcSym32> symbol = reader.read<ProcSym32>();
  FunctionRecord& func = addFunction(funcs, reader.readString(), symbol->seg, symbol->off);
  func.length = symbol->len;
  func.typeIndex = symbol->typind;
  return func;
}

// A thunk that is nested in nothing has no length: it comes out as a PUBLIC line, while a nested
// one comes out as a FUNC line without a type.
void PDBParser::readThunk(StreamReader& reader, Functions& funcs) const {
  const DataPtr<ThunkSym32> symbol = reader.read<ThunkSym32>();
  FunctionRecord& func = addFunction(funcs, reader.readString(), symbol->seg, symbol->off);
  func.length = symbol->parent != 0 ? uint32_t{symbol->len} : 0;
}

// One inlined function without a name silences all of its function. Where rendering names warns,
// the warnings are due at printing, so the judgement waits.
void PDBParser::addInlineSite(uint32_t inlinee, uint32_t symbolOffset, FunctionRecord& func) {
  if (func.inlinesSilenced) return;
  if (!typeNamesMayWarn() && !typeinfomap.isFunction(inlinee)) {
    func.inlinesSilenced = true;
    func.inlineCount = 0;
    m_inlineSites.resize(func.firstInline);
    return;
  }
  m_inlineSites.push_back(symbolOffset);
  ++func.inlineCount;
}

// Inline sites belong to the last procedure before them, whatever lies between but a thunk: its end
// is not looked at.
void PDBParser::getModuleFunctions(const DBIModuleInfo* module, Functions& funcs) {
  StreamReader reader = openModule(module);
  // cbSyms counts the signature too, so the limit lies 4 bytes past the symbols; in sound files a
  // symbol of kind 0 or the last one ends the walk.
  const uint32_t end = module->cbSyms + reader.getOffset();
  FunctionRecord* current_function = nullptr;
  while (reader.getOffset() < end) {
    const DataPtr<SymbolHeader> header = reader.read<SymbolHeader>();
    const uint32_t body = reader.getOffset();
    const uint32_t next = body - sizeof(SymbolHeader::type) + header->size;
    switch (header->type) {
      case S_NONE:
        return;
      case S_LPROC32:
      case S_GPROC32:
        current_function = &readProcedure(reader, funcs);
        current_function->inlineStream = static_cast<uint16_t>(module->stream);
        current_function->firstInline = static_cast<uint32_t>(m_inlineSites.size());
        break;
      case S_THUNK32:
        readThunk(reader, funcs);
        current_function = nullptr;
        break;
      case S_INLINESITE:
        if (!do_inline) break;
        assert(current_function != nullptr);
        addInlineSite(readInlineSite(reader, header->size).inlinee, body - sizeof(SymbolHeader),
                      *current_function);
        break;
      case S_INLINESITE_END:
        if (!do_inline) break;
        assert(current_function != nullptr);
        if (current_function->inlinesSilenced) break;
        m_inlineSites.push_back(kSiteEnd);
        ++current_function->inlineCount;
        break;
    }
    if (next >= end) return;
    reader.seek(next);
  }
}

}  // namespace symforge_internal
