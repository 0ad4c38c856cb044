// The size of a function's parameters on the stack.

#include "symforge/src/PDBParser.h"

namespace google_breakpad {

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
