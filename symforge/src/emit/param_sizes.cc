#include "symforge/src/emit/param_sizes.h"

#include <cstdlib>
#include <string_view>

namespace symforge_internal {

namespace {

// A decorated name ends in '@' and the bytes of its parameters: _name@12 is __stdcall; of
// @name@12, which is __fastcall, two of them are in registers. False for a name without them.
bool parameterBytes(std::string_view name, uint32_t& bytes) {
  const size_t at = name.rfind('@');
  if (at == std::string_view::npos || at == 0) return false;
  char* end;
  const long number = std::strtol(name.data() + at + 1, &end, 10);
  if (*end != '\0') return false;
  constexpr long kInRegisters = 8;
  if (name[0] == '_') {
    bytes = static_cast<uint32_t>(number);
  } else {
    bytes = number > kInRegisters ? static_cast<uint32_t>(number - kInRegisters) : 0;
  }
  return true;
}

}  // namespace

// A name goes on to its first NUL, which need not be in its record.
bool decoratedParamSize(const PublicFunction* global, uint32_t& paramSize, Allowance* visited) {
  if (global == nullptr || !global->decorated) return false;
  const std::string_view name = global->name.data;
  if (visited != nullptr) visited->spend(name.size());
  return parameterBytes(name, paramSize);
}

bool updateParamSize(FunctionRecord& func, const PublicFunction* global, Allowance* visited) {
  return decoratedParamSize(global, func.paramSize, visited);
}

void resolveParamSizes(Functions& functions, PublicFunctions& globals, const FrameTables& frames,
                       size_t sectionCount) {
  constexpr size_t kAhead = 8;
  // From the end, as another thread may read lines into the records from the start on.
  for (size_t i = functions.size(); i-- != 0;) {
    if (i >= 2 * kAhead) globals.prefetchIndex(functions[i - 2 * kAhead].rva);
    if (i >= kAhead) globals.prefetchSymbol(functions[i - kAhead].rva);
    FunctionRecord& func = functions[i];
    if (func.segment == 0 || func.segment > sectionCount) continue;  // dropped ones as well
    PublicFunction* global = globals.find(func.rva);
    if (!frames.findParamSize(func.rva, func.length, func.paramSize)) {
      updateParamSize(func, global, &globals.visited());
    }
    if (global != nullptr) global->covered = true;
  }
}

}  // namespace symforge_internal
