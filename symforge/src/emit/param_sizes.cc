// The size of a function's parameters on the stack.

#include <cstdlib>
#include <cstring>

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

namespace {

// A decorated name ends in '@' and the bytes of its parameters: _name@12 is __stdcall; of
// @name@12, which is __fastcall, two of them are in registers. False for a name that does not tell.
bool parameterBytes(const char* name, uint32_t& bytes) {
  const char* at = std::strrchr(name, '@');
  if (at == nullptr || at == name) return false;
  char* end;
  const long number = std::strtol(at + 1, &end, 10);
  if (*end != '\0') return false;
  constexpr long kInRegisters = 8;
  if (name[0] == '_')
    bytes = static_cast<uint32_t>(number);
  else
    bytes = number > kInRegisters ? static_cast<uint32_t>(number - kInRegisters) : 0;
  return true;
}

}  // namespace

bool PDBParser::updateParamSize(FunctionRecord& func, const PublicFunction* global) {
  return global != nullptr && global->decorated &&
         parameterBytes(global->name.data, func.paramSize);
}

void PDBParser::settleParamSizes(Functions& functions, PublicFunctions& globals,
                                 const FrameTables& frames) const {
  for (FunctionRecord& func : functions) {
    if (func.segment == 0 || func.segment > m_sections.count()) continue;  // dropped ones as well
    PublicFunction* global = globals.find(func.offset);
    if (const FPO_DATA_V2* data = frames.v2.find(func.offset, func.length))
      func.paramSize = data->cbParams;
    else if (const FPO_DATA* old = frames.v1.find(func.offset, func.length))
      func.paramSize = old->cdwParams * 4;
    else
      updateParamSize(func, global);
    if (global != nullptr) global->covered = true;
  }
}

}  // namespace symforge_internal
