// InlineCallGatherer: the INLINE lines of one function, turned into the records that lookups use.
//
// In the published text a function's line records hold the place of the innermost code, and an
// INLINE line the place of the call in its caller. Lookups want it the other way round: a
// function's own lines hold the place in the function itself (where a call was inlined, the place
// of the call), and each inline site the place in its callee. So with calls nested in each other
//
//   place in the function        = the call place of depth 0, or the line record
//   place in the callee of depth d = the call place of depth d + 1, or the line record
//
// Sites are cut where their place changes. A callee without a line record gets file -1 and line 0.
//
// What counts of ranges that are not in order: of two at one depth that overlap, the second to
// begin is cut at its front; a range outside of all ranges of the depth above is dropped, one that
// leaves the range that it begins in is cut at its end; depth 0 is cut to the function. Time is O(n
// log n) for n ranges and lines, memory O(n).

#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "common/symbol_text.h"
#include "processor/basic_source_line_resolver_module.h"

namespace google_breakpad {

class InlineCallGatherer {
 public:
  using Line = SourceLineResolverBase::Line;
  // A site whose name is that of an INLINE_ORIGIN line, to be set in `site.name`.
  struct Site {
    BasicSourceLineResolver::InlineFunction site;
    long origin;
  };

  // Copies the fields.
  void Store(const symforge_internal::InlineCallFields& fields);
  bool empty() const { return calls_.empty(); }

  // Makes the function's own lines and its sites, both in their final order, of the gathered calls
  // and of the function's line records, which are disjoint and ascending. The results are valid
  // until the next call of an operation.
  void Convert(const BasicSourceLineResolver::Function& function, std::span<const Line> lines);
  const std::vector<Line>& own_lines() const { return own_lines_; }
  const std::vector<Site>& sites() const { return sites_; }

  void Clear();

 private:
  struct Place {
    int32_t file;
    int32_t line;
    bool operator==(const Place&) const = default;
  };
  struct Call {
    Place place;
    long origin;
  };
  struct Range {
    MemAddr begin;
    MemAddr end;  // exclusive
    uint32_t depth;
    uint32_t call;  // index in calls_
  };
  // A range in its final form, or the function itself. The ranges directly inside it are adjacent.
  struct Node {
    MemAddr begin;
    MemAddr end;
    uint32_t call;
    uint32_t first_child = 0;
    uint32_t child_count = 0;
  };

  void BuildTree(const BasicSourceLineResolver::Function& function);
  void AddLevel(std::span<const Range> ranges, size_t first_parent, size_t end_parent);
  template <typename Visit>
  void VisitParts(const Node& node, std::span<const Line> lines, Visit visit) const;
  void AddSites(const Node& node, uint32_t depth, std::span<const Line> lines);

  std::vector<Call> calls_;
  std::vector<Range> ranges_;
  std::vector<Node> nodes_;           // level by level, the function first
  std::vector<size_t> level_starts_;  // in nodes_: where each level begins, and the end
  std::vector<Line> own_lines_;
  std::vector<Site> sites_;
};

}  // namespace google_breakpad
