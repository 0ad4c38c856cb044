// PublishedFunction: the lines and inline sites of a SYMB function in the order of the published
// text format.
//
// SYMB has the place in the function itself in the function's lines and the place in the callee in
// its sites. In the text, a line record holds the place of the innermost code, and an INLINE line
// the place of the call: the place in the next outer function at that address. Sites of one callee
// with the same place of call, inside the same call, become one INLINE line with several ranges.
// processor/inline_calls.h has the way back; together they change no answer of a lookup.

#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <tuple>
#include <vector>

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

  // `lines` and `sites` are those of the function; what is not in the order that a writer gives
  // them is left out, as is what lies outside of the function. False if the result would take more
  // than
  // `*budget` records, which is lowered by those that it takes.
  bool convert(const symb_func& function, std::span<const symb_line> lines,
               std::span<const symb_inline> sites, uint64_t* budget);

  // The results of the last conversion. A call comes after the call that it is inside of.
  const std::vector<symb_line>& line_records() const { return records_; }
  const std::vector<Call>& calls() const { return ordered_calls_; }

 private:
  static constexpr uint32_t kNone = UINT32_MAX;

  struct Place {
    int32_t file;
    int32_t line;
    auto operator<=>(const Place&) const = default;
  };
  // Of callee code without a line record.
  static constexpr Place kNoPlace = {-1, 0};
  // A site around the current address, and the call that it became there.
  struct Open {
    uint64_t end;
    uint32_t site;
    uint32_t call = kNone;
    uint32_t parent = kNone;
    Place place = {};
  };
  // Calls form a tree; children of none are inlined into the function.
  struct Node {
    uint32_t first_child = kNone;
    uint32_t last_child = kNone;
    uint32_t next = kNone;
    uint32_t parent = kNone;
    uint32_t last_line = kNone;  // depth 0: the function's line at the end of the last range
  };

  void open_sites(uint64_t at);
  bool add_part(uint64_t begin, uint64_t end, uint32_t line, uint64_t* budget);
  void add_record(uint64_t begin, uint64_t end, Place place, bool is_inlined);
  uint32_t call_of(Open& open, uint32_t parent, Place place, uint64_t begin, uint32_t line);
  void order_calls();

  std::span<const symb_line> lines_;
  std::span<const symb_inline> sites_;
  size_t next_site_ = 0;
  std::vector<Open> open_;
  std::vector<symb_line> records_;
  bool last_is_inlined_ = false;
  std::vector<Call> calls_;
  std::vector<Node> nodes_;  // by index in calls_
  Node root_;
  std::map<std::tuple<uint32_t, uint64_t, Place>, uint32_t> index_;  // parent, name, place of call
  std::vector<Call> ordered_calls_;
};

}  // namespace symforge_internal
