// InlineCalls: the inlined calls of one function, from the rows of its inline sites to the ranges,
// call places and lines that the symbol file shows.
//
//   calls.begin(functionSize);
//   calls.open(origin);              // a site; sites inside of it are opened before it is closed
//   calls.addRows([&](CodeRows& rows) {...});
//   calls.close();
//   calls.resolve(lineTable.rows());
//
// Ranges: the code of a site is that of its rows, cut to the code of the site that contains it.
// Each address belongs to one site of a depth: if rows of two sites overlap, the row that starts
// last wins, and of rows with the same start the one that was added last.
//
// Call places: the line of the caller's code at the address of the call. The caller is the function
// itself for a site of depth 0, and the enclosing site for a deeper one.
//
// resolve() walks over the code once and keeps the calls that are open at the current address,
// outermost first. It takes the time of sorting the rows, and for each place where a row begins or
// ends at most a step for each open call; these steps are limited for the whole file.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "symforge/src/standard/code_rows.h"

namespace symforge_internal {

// A range of an inlined call; bytes from the start of the function.
struct InlineRange {
  uint32_t start = 0;
  uint32_t end = 0;
};

// An inlined call with one call place.
struct InlinedCall {
  uint32_t depth = 0;  // 0: inlined into the function itself
  SourcePlace caller;  // not known where the caller has no line
  uint32_t calleeFile = kNoFile;
  uint32_t origin = 0;  // as given to open()
  uint32_t firstRange = 0;
  uint32_t rangeCount = 0;
};

class InlineCalls {
 public:
  // The most calls inside of each other. Compilers stop inlining long before.
  static constexpr uint32_t kMaxDepth = 256;

  // `maxSteps`: how many ranges all functions together may be cut into, counted at each depth.
  // `maxParts`: how many rows one function may have, and into how many ranges they may be cut.
  explicit InlineCalls(uint64_t maxSteps, uint64_t maxParts = UINT32_MAX)
      : m_budget(maxSteps), m_maxParts(maxParts) {}

  // Starts a function of `size` bytes; keeps the memory.
  void begin(uint32_t size);

  // Opens a site. To be called only while full() is false.
  void open(uint32_t origin) {
    const uint32_t parent = m_open.back();
    Site site;
    site.parent = parent;
    site.depth = parent == 0 ? 0 : m_sites[parent].depth + 1;
    site.origin = origin;
    m_open.push_back(static_cast<uint32_t>(m_sites.size()));
    m_sites.push_back(site);
  }
  // Opens a site that is left out: sites inside of it belong to the site around it.
  void openLeftOut() { m_open.push_back(m_open.back()); }
  // Whether a further site would be deeper than kMaxDepth.
  bool full() const {
    const uint32_t parent = m_open.back();
    return parent != 0 && m_sites[parent].depth + 1 == kMaxDepth;
  }
  // Calls append(rows), which appends the rows of the site that was opened last, in any order. Rows
  // without code have no effect. To be called before a further site is opened. Throws pdb_exception
  // for too many rows, and what append() throws.
  template <typename Append>
  void addRows(Append&& append) {
    const size_t first = m_rows.size();
    append(m_rows);
    linkRows(first);
  }
  // Closes the innermost open site; without one it does nothing.
  void close() {
    if (m_open.size() > 1) m_open.pop_back();
  }

  // What is left of `maxSteps`.
  uint64_t rangesLeft() const { return m_budget; }

  bool empty() const { return m_sites.size() == 1; }

  // Computes calls and lines. `ownLines` are the function's own, ascending and without overlap.
  // Throws pdb_exception when the budget is used up.
  void resolve(std::span<const CodeRow> ownLines);

  // A call is followed by the calls inside of it.
  const std::vector<InlinedCall>& calls() const { return m_calls; }
  // Of each call ascending.
  const std::vector<InlineRange>& ranges() const { return m_ranges; }
  // Where the innermost code was written: ascending, without overlap. Code whose place is not known
  // has no row.
  const CodeRows& lines() const { return m_lines; }

 private:
  static constexpr uint32_t kNone = 0xFFFFFFFF;

  // Sites are numbered in the order in which they were opened; 0 is the function.
  struct Site {
    uint32_t parent = kNone;
    uint32_t depth = 0;  // of the call
    uint32_t origin = 0;
    uint32_t openRow = kNone;  // the last one that was opened of those of its children
    uint32_t firstPiece = kNone;
    uint32_t lastPiece = kNone;
    uint32_t file = kNoFile;  // of its first code
  };
  // What a row belongs to.
  struct RowLink {
    uint32_t site = 0;
    uint32_t outer = kNone;  // the row that was open among its siblings when it was opened
  };
  // A part of a site's code with one call place.
  struct Piece {
    uint32_t start = 0;
    uint32_t end = 0;
    SourcePlace caller;
    uint32_t next = kNone;  // of the same site
  };
  // A call that is open at the present address.
  struct OpenCall {
    uint32_t site = 0;
    uint32_t start = 0;  // of the piece that is open
    uint32_t end = 0;    // of its row, or of the row of a call around it if that is less
    SourcePlace caller;
    SourcePlace place;  // of its code
  };

  void linkRows(size_t first);
  void sortRows();
  uint32_t nextStart() const;
  size_t openRows(uint32_t at);
  size_t keptCalls(size_t most, uint32_t at, const SourcePlace& ownPlace);
  void openCalls(size_t kept, uint32_t at, const SourcePlace& ownPlace);
  uint32_t innermostRow(Site& site, uint32_t at) const;
  void beginPiece(OpenCall& call, uint32_t start, const SourcePlace& caller);
  void endPiece(const OpenCall& call, uint32_t end);
  CodeRow* addLine(const CodeRow& line, CodeRow* last);
  void addCalls(const Site& site);
  void addCall(const Site& site, const Piece* first, const Piece* last);
  void spend(size_t steps);
  [[noreturn]] static void throwTooMany();

  uint64_t m_budget;
  uint64_t m_maxParts;
  uint32_t m_size = 0;
  std::vector<Site> m_sites;
  std::vector<uint32_t> m_open;  // sites; for one that was left out, the site around it
  CodeRows m_rows;
  std::vector<RowLink> m_links;  // of the rows; can be longer
  std::vector<Piece> m_pieces;
  std::vector<InlinedCall> m_calls;
  std::vector<InlineRange> m_ranges;
  CodeRows m_lines;

  // Of the sweep.
  std::vector<uint64_t> m_order;           // start of a row above its position; at the end a mark
  const uint64_t* m_nextRow = nullptr;     // in m_order
  std::array<OpenCall, kMaxDepth> m_path;  // the open calls; a site is at most that deep
  size_t m_depth = 0;                      // how many there are
  std::vector<Piece> m_sorted;
};

}  // namespace symforge_internal
