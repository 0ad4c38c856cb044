// InlineCalls: the inlined calls of one function, from the rows of its inline sites to the ranges,
// call places and lines that the symbol file shows.
//
//   calls.begin(functionSize);
//   calls.open(origin);              // a site; sites inside of it are opened before it is closed
//   calls.addRow({start, end, place});
//   calls.close();
//   calls.resolve(lineTable.rows());
//
// A site has its code by its rows, as far as it lies inside of the site around it. Where rows of
// sibling sites, or of one site, overlap, the row that starts last counts, and of several that
// start together the last one added: no two ranges of one depth overlap. A call's place is the line
// of the code around it at the same address: of the function's own lines at depth 0, of the rows of
// the enclosing site below.
//
// The time is n log n for n rows and ranges. Ranges can be more than rows, as each enclosing site
// cuts the sites inside of it; they are counted against a budget of the whole file.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "symforge/src/standard/code_row.h"

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

  // `maxPieces`: how many ranges all functions together may be cut into; see resolve().
  explicit InlineCalls(uint64_t maxPieces) : m_budget(maxPieces) {}

  // Starts a function of `size` bytes; keeps the memory.
  void begin(uint32_t size);

  // Opens a site. To be called only while full() is false.
  void open(uint32_t origin);
  // Opens a site that is left out: sites inside of it belong to the site around it.
  void openLeftOut();
  // Whether a further site would be deeper than kMaxDepth.
  bool full() const;
  // Adds a row to the site that was opened last, in any order. To be called before a further site
  // is opened.
  void addRow(const CodeRow& row);
  // Closes the innermost open site; without one it does nothing.
  void close();

  bool empty() const { return m_sites.size() == 1; }

  // Computes calls and lines. `ownLines` are the function's own, ascending and without overlap.
  // Throws pdb_exception when the budget is used up.
  void resolve(const std::vector<CodeRow>& ownLines);

  // A call is followed by the calls inside of it.
  const std::vector<InlinedCall>& calls() const { return m_calls; }
  // Of each call ascending.
  const std::vector<InlineRange>& ranges() const { return m_ranges; }
  // Where the innermost code was written: ascending, without overlap. Code whose place is not known
  // has no row.
  const std::vector<CodeRow>& lines() const { return m_lines; }

 private:
  static constexpr uint32_t kNone = 0xFFFFFFFF;

  // Sites are numbered in the order in which they were opened; 0 is the function.
  struct Site {
    uint32_t parent = kNone;
    uint32_t depth = 0;  // of the call
    uint32_t origin = 0;
    uint32_t firstChild = kNone;
    uint32_t lastChild = kNone;
    uint32_t nextSibling = kNone;
    uint32_t firstRow = 0;
    uint32_t rowCount = 0;
    uint32_t firstPiece = 0;
    uint32_t pieceCount = 0;
  };
  // A row of some child of the site that is being resolved.
  struct ChildRow {
    CodeRow row;
    uint32_t site = 0;
    uint32_t sequence = 0;
  };
  // A part of a site's code, with the place of the call.
  struct Piece {
    CodeRow row;
    SourcePlace caller;
  };
  struct ChildPiece {
    Piece piece;
    uint32_t site = 0;
  };

  void makeRootPieces(const std::vector<CodeRow>& ownLines);
  void resolveChildren(const Site& site);
  void gatherChildRows(const Site& site);
  void coverChildRows();
  void cover(uint32_t start, uint32_t end, const ChildRow& row);
  void cutPiece(const CodeRow& parent, size_t& next);
  void addLeaf(uint32_t start, uint32_t end, const SourcePlace& place);
  void addChildPiece(const ChildRow& row, const CodeRow& parent);
  void distribute(const Site& site);
  void addCalls(const Site& site);
  void addCall(const Site& site, const Piece* first, const Piece* last);
  void finishLines();
  void spend(size_t pieces);

  uint64_t m_budget;
  uint32_t m_size = 0;
  std::vector<Site> m_sites;
  std::vector<uint32_t> m_open;  // sites; for one that was left out, the site around it
  std::vector<CodeRow> m_rows;
  std::vector<Piece> m_pieces;  // of each site together
  std::vector<InlinedCall> m_calls;
  std::vector<InlineRange> m_ranges;
  std::vector<CodeRow> m_lines;

  // Of the site that is being resolved.
  std::vector<ChildRow> m_childRows;
  std::vector<ChildRow> m_cover;  // the same without overlap
  std::vector<uint32_t> m_stack;  // positions in m_childRows
  std::vector<ChildPiece> m_childPieces;
  std::vector<Piece> m_sorted;
};

}  // namespace symforge_internal
