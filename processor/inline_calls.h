// InlineCallGatherer: converts the INLINE lines of one function to the records that lookups use.
//
// In the published text a function's line records hold the position in the innermost code, and an
// INLINE line the position of the call in its caller. Lookups need the inverse: a function's own
// lines hold the position in the function itself (for inlined code that of the call), and each
// inline site the position in its callee. For nested calls:
//
//   position in the function            = the call position of depth 0, or the line record
//   position in the callee of depth d   = the call position of depth d + 1, or the line record
//
// Sites are split where their position changes. A callee without a line record gets file -1 and
// line 0.
//
// Invalid ranges are repaired: of two overlapping ranges of one depth, the second one loses its
// start; a range outside of all ranges of the depth above is dropped; a range that exceeds the one
// it starts in loses its end; ranges of depth 0 are clipped to the function. For n ranges and
// lines, takes O(n log n) time and O(n) memory.

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
  using Site = SourceLineResolverBase::InlineFunction;

  // In place of its name, a site has the number of the INLINE_ORIGIN line with the name.
  static const char* NameOfOrigin(int origin) {
    return reinterpret_cast<const char*>(static_cast<uintptr_t>(static_cast<unsigned>(origin)));
  }
  static int OriginOf(const Site& site) {
    return static_cast<int>(reinterpret_cast<uintptr_t>(site.name));
  }

  // Adds one INLINE line. Copies the fields. Ranges beyond kMaxInlineSites of a function are
  // dropped.
  void Store(const symforge_internal::InlineCallFields& fields);
  bool empty() const { return calls_.empty(); }

  // Computes the function's own lines and its sites, both in final order, from the stored calls and
  // the function's line records, which must be disjoint and ascending. The results are valid until
  // the next call of a non-const member.
  void Convert(const BasicSourceLineResolver::Function& function, std::span<const Line> lines);
  const std::vector<Line>& own_lines() const { return own_lines_; }
  const std::vector<Site>& sites() const { return sites_; }

  void Clear();

 private:
  struct SourcePosition {
    int32_t file;
    int32_t line;
    bool operator==(const SourcePosition&) const = default;
  };
  struct Call {
    SourcePosition position;
    long origin;
  };
  struct Range {
    MemAddr begin;
    MemAddr end;  // exclusive
    uint32_t depth;
    uint32_t call;  // index into calls_
  };
  // What sites are sorted by, and the position of the site.
  struct SiteKey {
    MemAddr address;
    uint32_t depth;
    uint32_t index;
  };
  // A repaired range, or the function itself. Its children are adjacent.
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
  void VisitParts(const Node& node, std::span<const Line> lines, size_t* next_line,
                  Visit visit) const;
  void AddSites(const Node& node, uint32_t depth, std::span<const Line> lines, size_t* next_line);
  void SortRanges();
  void SortSites();

  std::vector<Call> calls_;
  std::vector<Range> ranges_;
  std::vector<Node> nodes_;           // by level, the function first
  std::vector<size_t> level_starts_;  // indexes into nodes_: the start of each level, and the end
  std::vector<Line> own_lines_;
  std::vector<Site> sites_;
  // Scratch memory.
  std::vector<Range> unsorted_ranges_;
  std::vector<size_t> depth_starts_;
  std::vector<Site> unsorted_sites_;
  std::vector<SiteKey> keys_;
};

}  // namespace google_breakpad
