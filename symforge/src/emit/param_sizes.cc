#include "symforge/src/emit/param_sizes.h"

#include <cstdlib>
#include <cstring>

namespace symforge_internal {

namespace {

// A decorated name ends in '@' and the bytes of its parameters: _name@12 is __stdcall; of
// @name@12, which is __fastcall, two of them are in registers. False for a name without them.
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

bool decoratedParamSize(const PublicFunction* global, uint32_t& paramSize) {
  return global != nullptr && global->decorated && parameterBytes(global->name.data, paramSize);
}

bool updateParamSize(FunctionRecord& func, const PublicFunction* global) {
  return decoratedParamSize(global, func.paramSize);
}

void resolveParamSizes(Functions& functions, PublicFunctions& globals, const FrameTables& frames,
                       size_t sectionCount) {
  for (FunctionRecord& func : functions) {
    if (func.segment == 0 || func.segment > sectionCount) continue;  // dropped ones as well
    PublicFunction* global = globals.find(func.rva);
    if (!frames.findParamSize(func.rva, func.length, func.paramSize)) updateParamSize(func, global);
    if (global != nullptr) global->covered = true;
  }
}

}  // namespace symforge_internal
