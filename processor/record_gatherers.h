// LineGatherer, InlineGatherer: the lines and inline sites of one function while its text is read.
//
// A function's records stand behind its FUNC line without a gap, so they are gathered in buffers
// that serve one function after the other, and laid down in the module's arena in their final form
// and exact size when the function is over. Symbol writers emit both kinds in order, which needs no
// tree: an append with a look at the last record settles what is refused. Input in any other order
// falls back to the address containers, with the same result.

#pragma once

#include <string_view>
#include <vector>

#include "base/nested_range_stack.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/string_storage.h"

namespace google_breakpad {

using symforge_internal::Arena;

// The lines of a function: disjoint ranges, the first stored stays.
class LineGatherer {
 public:
  using Line = SourceLineResolverBase::Line;

  // A range that is empty or overlaps a stored one is dropped; one that runs past the largest
  // address is dropped with a line in the log.
  void Store(const Line& line);
  // Copies the lines in ascending order into `arena` and makes them the function's.
  void MoveTo(Arena& arena, BasicSourceLineResolver::Function* function);
  void Clear();
  // The stored lines in ascending order, until the next Store, MoveTo or Clear.
  const std::vector<Line>& Sorted();

 private:
  void StoreOutOfOrder(const Line& line);

  std::vector<Line> lines_;
  bool ordered_ = true;                   // lines_ is ascending and disjoint; by_range_ is empty
  RangeMap<MemAddr, uint32_t> by_range_;  // otherwise: which of lines_ are stored
};

// The inline sites of a function: nested ranges, the first stored stays.
class InlineGatherer {
 public:
  using InlineFunction = BasicSourceLineResolver::InlineFunction;

  // A range that is empty, runs past the largest address, is stored already or cuts a stored one
  // in part is dropped. `name` must stay valid until the next MoveTo or Clear.
  void Store(const InlineFunction& site, std::string_view name);
  // Copies the sites, outer before inner, into the store and makes them the function's.
  void MoveTo(StringStorage& store, BasicSourceLineResolver::Function* function);
  void Clear();

 private:
  struct Site {
    InlineFunction record;
    std::string_view name;
    MemAddr high() const { return record.function_address + record.code_size - 1; }
  };

  void SortByNesting();

  std::vector<Site> sites_;
  // While `ordered_`: sites_ is in the order of nesting.
  bool ordered_ = true;
  symforge_internal::NestedRangeStack nesting_;
  // Otherwise: which of sites_ are stored is decided when the function is over.
  std::vector<InlineFunction> final_;
};

}  // namespace google_breakpad
