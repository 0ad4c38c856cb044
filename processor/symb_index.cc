#include "processor/symb_index.h"

#include "common/symb_block.h"
#include "processor/symb_tables.h"

namespace google_breakpad {

namespace {

bool is_dense(const SymbTable& files) {
  if (files.count == 0) return false;
  const auto index_of = [&files](uint64_t position) {
    return int64_t{symb_load<symb_file>(files.records + position * sizeof(symb_file)).index};
  };
  const int64_t first = index_of(0);
  for (uint64_t i = 1; i < files.count; ++i) {
    if (index_of(i) != first + static_cast<int64_t>(i)) return false;
  }
  return true;
}

}  // namespace

SymbIndex::SymbIndex(const SymbTables& tables) {
  if (!tables.has_functions()) {
    // No lookup searches them.
  } else if (symforge_internal::symb_has_inlines(tables.version())) {
    functions.build<InlineFunctionStep>(tables.functions<symb_func_inline>().search_for(0));
  } else {
    functions.build<FunctionStep>(tables.functions<symb_func>().search_for(0));
  }
  publics.build<PublicStep>(tables.publics().search_for(0));
  initial_rules.build<InitialRuleStep>(tables.initial_rules().search_for(0));
  delta_rules.build<DeltaRuleStep>(tables.delta_rules().search_for(0));
  files_are_dense = is_dense(tables.files());
  if (files_are_dense) first_file = symb_load<symb_file>(tables.files().records).index;
}

}  // namespace google_breakpad
