// LineGatherer, InlineGatherer: collect the lines and inline sites of one function while its text
// is parsed.
//
// The records of a function directly follow its FUNC line. They are collected in buffers that are
// reused for each function, and copied to the module's arena in final form when the function ends.
// Symbol writers emit both kinds in order; then an append only checks the last record. Records in
// any other order fall back to the address containers, with the same result.

#pragma once

#include <string_view>
#include <vector>

#include "base/nested_range_stack.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/string_storage.h"

namespace google_breakpad {

using symforge_internal::Arena;

// The lines of a function: disjoint ranges, of which the first stored is kept.
class LineGatherer {
 public:
  using Line = SourceLineResolverBase::Line;

  // Drops a range that is empty or overlaps a stored one. Drops and logs one that exceeds the
  // largest address.
  void Store(const Line& line);
  void Clear();
  // The stored lines in ascending order. Valid until the next Store or Clear.
  const std::vector<Line>& Sorted();

 private:
  void StoreOutOfOrder(const Line& line, bool valid);
  void UseRanges();
  bool SortDisjoint();

  // The range of a line in 12 bytes.
  class LineRange {
   public:
    LineRange(MemAddr base, MemAddr /*delta*/, uint32_t line)
        : base_{static_cast<uint32_t>(base), static_cast<uint32_t>(base >> 32)}, line_(line) {}
    MemAddr base() const { return base_[0] | MemAddr{base_[1]} << 32; }
    MemAddr delta() const { return 0; }
    const uint32_t& entry() const { return line_; }

   private:
    uint32_t base_[2];
    uint32_t line_;
  };

  std::vector<Line> lines_;
  MemAddr last_high_ = 0;  // the last address of the last line, while kOrdered
  enum class State {
    kOrdered,   // lines_ is ascending and disjoint
    kUnsorted,  // lines_ has all lines, in the order of Store(); none is invalid
    kRanges,    // lines_ has the lines that by_range_ has accepted
  };
  State state_ = State::kOrdered;
  std::vector<Line> sorted_;                         // scratch memory
  RangeMap<MemAddr, uint32_t, LineRange> by_range_;  // ranges of lines_; empty before kRanges
};

[[gnu::always_inline]] inline void LineGatherer::Store(const Line& line) {
  const MemAddr high = line.address + line.size - 1;
  const bool valid = line.size > 0 && high >= line.address;
  if (state_ != State::kOrdered || !valid) {
    StoreOutOfOrder(line, valid);
    return;
  }
  // Compares last addresses, because the address after a line may overflow.
  if (line.address > last_high_ || lines_.empty()) {
    lines_.push_back(line);
    last_high_ = high;
  } else if (high < lines_.back().address) {
    StoreOutOfOrder(line, true);
  }
  // Any other line overlaps the last one and is dropped.
}

// The inline sites of a function: nested ranges, of which the first stored is kept.
class InlineGatherer {
 public:
  using InlineFunction = SourceLineResolverBase::InlineFunction;

  // Drops a range that is empty, exceeds the largest address, is stored already or partially
  // overlaps a stored one. `name` must stay valid until the next Clear.
  void Store(const InlineFunction& site, std::string_view name);
  // The stored sites in pre-order, without their names. Valid until the next Store or Clear.
  const std::vector<InlineFunction>& Sorted();
  // Copies the names to `store` and assigns them to the sites of the records, which are those that
  // Sorted() returned.
  void StoreNames(StringStorage& store, FunctionRecords* records) const;
  void Clear();

 private:
  struct Site {
    InlineFunction record;
    std::string_view name;
    MemAddr high() const { return record.function_address + record.code_size - 1; }
  };

  void SortByNesting();

  std::vector<Site> sites_;
  // While `ordered_`, sites_ is in pre-order.
  bool ordered_ = true;
  symforge_internal::NestedRangeStack nesting_;
  // Otherwise the end of the function determines which of sites_ are stored.
  std::vector<InlineFunction> final_;
};

}  // namespace google_breakpad
