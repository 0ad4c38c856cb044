#include "symforge/src/standard/inline_calls.h"

#include <algorithm>
#include <tuple>

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

namespace {

bool startsBefore(const CodeRow& a, const CodeRow& b) { return a.start < b.start; }

}  // namespace

void InlineCalls::begin(uint32_t size) {
  m_size = size;
  m_sites.assign(1, Site());
  m_open.assign(1, 0);
  m_rows.clear();
  m_pieces.clear();
  m_calls.clear();
  m_ranges.clear();
  m_lines.clear();
}

void InlineCalls::open(uint32_t origin) {
  const uint32_t parent = m_open.back();
  Site site;
  site.parent = parent;
  site.depth = parent == 0 ? 0 : m_sites[parent].depth + 1;
  site.origin = origin;
  site.firstRow = static_cast<uint32_t>(m_rows.size());
  const auto number = static_cast<uint32_t>(m_sites.size());
  m_sites.push_back(site);
  m_open.push_back(number);
  Site& around = m_sites[parent];
  (around.firstChild == kNone ? around.firstChild : m_sites[around.lastChild].nextSibling) = number;
  around.lastChild = number;
}

bool InlineCalls::full() const {
  const uint32_t parent = m_open.back();
  return parent != 0 && m_sites[parent].depth + 1 == kMaxDepth;
}

void InlineCalls::openLeftOut() { m_open.push_back(m_open.back()); }

void InlineCalls::addRow(const CodeRow& row) {
  if (row.start >= row.end) return;
  m_rows.push_back(row);
  ++m_sites.back().rowCount;
}

void InlineCalls::close() {
  if (m_open.size() > 1) m_open.pop_back();
}

void InlineCalls::resolve(const std::vector<CodeRow>& ownLines) {
  makeRootPieces(ownLines);
  for (size_t number = 0; number < m_sites.size(); ++number) {
    const Site& site = m_sites[number];
    if (number != 0) addCalls(site);
    resolveChildren(site);
  }
  finishLines();
}

// The function's own code, all of it: also what has no line is a caller.
void InlineCalls::makeRootPieces(const std::vector<CodeRow>& ownLines) {
  uint32_t at = 0;
  for (const CodeRow& row : ownLines) {
    if (row.start > at) m_pieces.push_back({{at, row.start, {}}, {}});
    m_pieces.push_back({row, {}});
    at = row.end;
  }
  if (at < m_size) m_pieces.push_back({{at, m_size, {}}, {}});
  m_sites[0].pieceCount = static_cast<uint32_t>(m_pieces.size());
  spend(m_pieces.size());
}

// Cuts the code of a site into that of its children, which become pieces of theirs, and what is
// left, which becomes lines.
void InlineCalls::resolveChildren(const Site& site) {
  gatherChildRows(site);
  coverChildRows();
  m_childPieces.clear();
  size_t next = 0;
  for (uint32_t i = 0; i < site.pieceCount; ++i) {
    cutPiece(m_pieces[site.firstPiece + i].row, next);
  }
  spend(m_childPieces.size());
  distribute(site);
}

void InlineCalls::gatherChildRows(const Site& site) {
  m_childRows.clear();
  bool sorted = true;
  for (uint32_t child = site.firstChild; child != kNone; child = m_sites[child].nextSibling) {
    const CodeRow* const rows = m_rows.data() + m_sites[child].firstRow;
    for (uint32_t i = 0; i < m_sites[child].rowCount; ++i) {
      if (!m_childRows.empty() && startsBefore(rows[i], m_childRows.back().row)) sorted = false;
      m_childRows.push_back({rows[i], child, static_cast<uint32_t>(m_childRows.size())});
    }
  }
  if (sorted) return;
  std::sort(m_childRows.begin(), m_childRows.end(), [](const ChildRow& a, const ChildRow& b) {
    return std::tie(a.row.start, a.sequence) < std::tie(b.row.start, b.sequence);
  });
}

// The row that starts last counts until it ends; then one that started before it goes on, if it
// reaches further.
void InlineCalls::coverChildRows() {
  m_cover.clear();
  m_stack.clear();
  uint32_t at = 0;
  const auto popTo = [&](uint32_t address) {
    while (!m_stack.empty() && m_childRows[m_stack.back()].row.end <= address) {
      const ChildRow& top = m_childRows[m_stack.back()];
      cover(at, top.row.end, top);
      at = std::max(at, top.row.end);
      m_stack.pop_back();
    }
  };
  for (uint32_t i = 0; i < m_childRows.size(); ++i) {
    const uint32_t start = m_childRows[i].row.start;
    popTo(start);
    if (!m_stack.empty()) cover(at, start, m_childRows[m_stack.back()]);
    at = start;
    m_stack.push_back(i);
  }
  popTo(UINT32_MAX);
}

void InlineCalls::cover(uint32_t start, uint32_t end, const ChildRow& row) {
  if (start < end) m_cover.push_back({{start, end, row.row.place}, row.site, row.sequence});
}

// `next`: position in m_cover of the first range that ends after the start of this piece; left
// where the following piece goes on.
void InlineCalls::cutPiece(const CodeRow& parent, size_t& next) {
  uint32_t at = parent.start;
  while (next < m_cover.size() && m_cover[next].row.end <= parent.start) ++next;
  for (; next < m_cover.size() && m_cover[next].row.start < parent.end; ++next) {
    const CodeRow& row = m_cover[next].row;
    addLeaf(at, std::max(row.start, at), parent.place);
    addChildPiece(m_cover[next], parent);
    at = std::min(row.end, parent.end);
    if (row.end > parent.end) return;
  }
  addLeaf(at, parent.end, parent.place);
}

void InlineCalls::addLeaf(uint32_t start, uint32_t end, const SourcePlace& place) {
  if (start < end && place.known()) m_lines.push_back({start, end, place});
}

// Pieces that differ in nothing but their code are one: the callers of a site's callers must not
// cut it.
void InlineCalls::addChildPiece(const ChildRow& row, const CodeRow& parent) {
  const uint32_t start = std::max(row.row.start, parent.start);
  const uint32_t end = std::min(row.row.end, parent.end);
  if (!m_childPieces.empty()) {
    ChildPiece& last = m_childPieces.back();
    if (last.site == row.site && last.piece.row.end == start &&
        last.piece.row.place == row.row.place && last.piece.caller == parent.place) {
      last.piece.row.end = end;
      return;
    }
  }
  m_childPieces.push_back({{{start, end, row.row.place}, parent.place}, row.site});
}

// Appends the pieces of each child together to m_pieces; they stay in the order of their addresses.
void InlineCalls::distribute(const Site& site) {
  for (const ChildPiece& child : m_childPieces) ++m_sites[child.site].pieceCount;
  auto first = static_cast<uint32_t>(m_pieces.size());
  for (uint32_t child = site.firstChild; child != kNone; child = m_sites[child].nextSibling) {
    m_sites[child].firstPiece = first;
    first += m_sites[child].pieceCount;
    m_sites[child].pieceCount = 0;
  }
  m_pieces.resize(first);
  for (const ChildPiece& child : m_childPieces) {
    Site& of = m_sites[child.site];
    m_pieces[of.firstPiece + of.pieceCount++] = child.piece;
  }
}

// Code that was called from different places becomes a call for each of them.
void InlineCalls::addCalls(const Site& site) {
  if (site.pieceCount == 0) return;
  const Piece* first = m_pieces.data() + site.firstPiece;
  const Piece* last = first + site.pieceCount;
  const auto sameCaller = [first](const Piece& piece) { return piece.caller == first->caller; };
  if (std::all_of(first, last, sameCaller)) {
    addCall(site, first, last);
    return;
  }
  m_sorted.assign(first, last);
  std::sort(m_sorted.begin(), m_sorted.end(), [](const Piece& a, const Piece& b) {
    return std::tie(a.caller.file, a.caller.line, a.row.start) <
           std::tie(b.caller.file, b.caller.line, b.row.start);
  });
  first = m_sorted.data();
  last = first + m_sorted.size();
  while (first != last) {
    const Piece* end = first;
    while (end != last && end->caller == first->caller) ++end;
    addCall(site, first, end);
    first = end;
  }
}

void InlineCalls::addCall(const Site& site, const Piece* first, const Piece* last) {
  InlinedCall call;
  call.depth = site.depth;
  call.caller = first->caller;
  call.calleeFile = first->row.place.file;
  call.origin = site.origin;
  call.firstRange = static_cast<uint32_t>(m_ranges.size());
  for (; first != last; ++first) {
    const bool goesOn =
        m_ranges.size() > call.firstRange && m_ranges.back().end == first->row.start;
    if (goesOn)
      m_ranges.back().end = first->row.end;
    else
      m_ranges.push_back({first->row.start, first->row.end});
  }
  call.rangeCount = static_cast<uint32_t>(m_ranges.size()) - call.firstRange;
  m_calls.push_back(call);
}

// Rows that touch and have one place are parts of what a site or its caller was cut into.
void InlineCalls::finishLines() {
  std::sort(m_lines.begin(), m_lines.end(), startsBefore);
  size_t kept = 0;
  for (const CodeRow& row : m_lines) {
    CodeRow* const last = kept == 0 ? nullptr : &m_lines[kept - 1];
    if (last != nullptr && last->end == row.start && last->place == row.place)
      last->end = row.end;
    else
      m_lines[kept++] = row;
  }
  m_lines.resize(kept);
}

void InlineCalls::spend(size_t pieces) {
  if (pieces > m_budget) throw pdb_exception("Inlined calls are cut into too many ranges");
  m_budget -= pieces;
}

}  // namespace symforge_internal
