// The size of a function's parameters on the stack.

#include <cstdlib>
#include <cstring>

#include "symforge/src/PDBParser.h"

namespace google_breakpad {

// A decorated name ends in '@' and the bytes of its parameters: _name@12 is __stdcall; of
// @name@12, which is __fastcall, two of them are in registers.
bool PDBParser::updateParamSize(FunctionRecord& func, const Globals& globals) const {
  const PublicFunction* global = globals.find(func.offset);
  if (global == nullptr) return false;
  const char* name = global->name.data;
  if (name[0] != '@' && name[0] != '_') return false;
  const char* at = std::strrchr(name, '@');
  if (at == nullptr || at == name) return false;
  char* end;
  const long bytes = std::strtol(at + 1, &end, 10);
  if (*end != '\0') return false;
  constexpr long kInRegisters = 8;
  const long onStack = name[0] == '_' ? bytes : bytes > kInRegisters ? bytes - kInRegisters : 0;
  func.paramSize = static_cast<uint32_t>(onStack);
  return true;
}

void PDBParser::settleParamSizes(Functions& functions, Globals& globals,
                                 const FrameTables& frames) const {
  for (FunctionRecord& func : functions) {
    if (func.segment == 0 || func.segment > sections.size()) continue;  // dropped ones as well
    if (const FPO_DATA_V2* data = frames.v2.find(func.offset, func.length))
      func.paramSize = data->cbParams;
    else if (const FPO_DATA* old = frames.v1.find(func.offset, func.length))
      func.paramSize = old->cdwParams * 4;
    else
      updateParamSize(func, globals);
    if (PublicFunction* global = globals.find(func.offset)) global->covered = true;
  }
}

}  // namespace google_breakpad
