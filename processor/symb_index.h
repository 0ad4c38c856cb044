// SymbIndex: what speeds up lookups in one SYMB block that is read often.
//
// Made once, for a block that has passed symb_check_safety(). A table that is not in order has no
// index and is searched as in a block without any; the results are the same.

#pragma once

#include <cstdint>

#include "common/symb.h"
#include "processor/address_index.h"
#include "processor/symb_search.h"

namespace google_breakpad {

class SymbTables;

using FunctionStep = RangeStep<symb_func, offsetof(symb_func, address)>;
using InlineFunctionStep = RangeStep<symb_func_inline, offsetof(symb_func_inline, address)>;
using FunctionStartStep = AddressStep<symb_func_inline, offsetof(symb_func_inline, address)>;
using LineStep = RangeStep<symb_line, offsetof(symb_line, address)>;
using PublicStep = AddressStep<symb_public, offsetof(symb_public, address)>;
using InitialRuleStep = RangeStep<symb_cfi_rule, offsetof(symb_cfi_rule, base)>;
using DeltaRuleStep = AddressStep<symb_cfi_delta_rule, offsetof(symb_cfi_delta_rule, address)>;

struct SymbIndex {
  // Reads the tables of functions, files, public symbols and rules of a block.
  explicit SymbIndex(const SymbTables& tables);

  AddressIndex functions;
  AddressIndex publics;
  AddressIndex initial_rules;
  AddressIndex delta_rules;
  // Whether the files have consecutive numbers from `first_file`.
  bool files_are_dense = false;
  int32_t first_file = 0;
};

}  // namespace google_breakpad
