// PublishedFunction: converts the lines and inline sites of a SYMB function to the form of the
// published text format.
//
// In SYMB, the lines hold positions in the function itself, and an inline site holds the position
// in the callee. In the text, a line record holds the position in the innermost code. An INLINE
// line holds the position of the call, in the next outer function at that address. Sites with the
// same callee and call position inside the same call become one INLINE line with several ranges.
// processor/inline_calls.h converts back; the round trip changes no result of a lookup.

#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <tuple>
#include <vector>

#include "base/limits.h"
#include "common/symb.h"
#include "common/symbol_text.h"

namespace symforge_internal {

class PublishedFunction {
 public:
  struct Call {
    uint32_t depth;
    int32_t line;
    int32_t file;
    uint64_t name;  // as in symb_inline
    std::vector<InlineCallFields::Range> ranges;
  };

  // Converts the `lines` and `sites` of `function`. Records that are out of order or outside of the
  // function are dropped. Spends one of `parts` for each part that the function or a call is cut
  // into. Throws LimitExceeded when there are more, or more than `most_parts` in this function.
  void convert(const symb_func& function, std::span<const symb_line> lines,
               std::span<const symb_inline> sites, uint64_t most_parts, Allowance& parts);

  // The results of the last conversion. An outer call precedes the calls inside it.
  const std::vector<symb_line>& line_records() const { return records_; }
  const std::vector<Call>& calls() const { return ordered_calls_; }

 private:
  static constexpr uint32_t kNone = UINT32_MAX;

  struct SourcePosition {
    int32_t file;
    int32_t line;
    auto operator<=>(const SourcePosition&) const = default;
  };
  // For callee code without a line record.
  static constexpr SourcePosition kNoPosition = {-1, 0};
  // A site that contains the current address, and its call.
  struct Open {
    uint64_t end;
    uint32_t site;
    uint32_t call = kNone;
    uint32_t parent = kNone;
    SourcePosition position = {};
  };
  // Calls form a tree. Calls without a parent are inlined into the function itself.
  struct Node {
    uint32_t first_child = kNone;
    uint32_t last_child = kNone;
    uint32_t next = kNone;
    uint32_t parent = kNone;
    uint32_t last_line = kNone;  // depth 0: the function's line at the end of the last range
  };

  void open_sites(uint64_t at);
  void add_part(uint64_t begin, uint64_t end, uint32_t line);
  void add_record(uint64_t begin, uint64_t end, SourcePosition position, bool is_inlined);
  uint32_t call_of(Open& open, uint32_t parent, SourcePosition position, uint64_t begin,
                   uint32_t line);
  void order_calls();

  std::span<const symb_line> lines_;
  std::span<const symb_inline> sites_;
  size_t next_site_ = 0;
  std::vector<Open> open_;
  std::vector<symb_line> records_;
  bool last_is_inlined_ = false;
  std::vector<Call> calls_;
  std::vector<Node> nodes_;  // by index into calls_
  Node root_;
  std::map<std::tuple<uint32_t, uint64_t, SourcePosition>, uint32_t>
      index_;  // parent, name, call position
  std::vector<Call> ordered_calls_;
};

}  // namespace symforge_internal
