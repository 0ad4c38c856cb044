#include "symforge/src/standard/inline_calls.h"

#include <algorithm>
#include <tuple>

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

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

inline void InlineCalls::spend(size_t steps) {
  if (steps > m_budget) throwTooMany();
  m_budget -= steps;
}

void InlineCalls::throwTooMany() {
  throw pdb_exception("Inlined calls are cut into too many ranges");
}

// By start, and those that start together in the order in which they were added.
void InlineCalls::sortRows() {
  m_nextRow = 0;
  m_order.resize(m_rows.size());
  uint64_t* const order = m_order.data();
  for (size_t i = 0; i < m_rows.size(); ++i) order[i] = uint64_t{m_rows[i].code.start} << 32 | i;
  std::sort(m_order.begin(), m_order.end());
}

inline uint32_t InlineCalls::nextStart() const {
  return static_cast<uint32_t>(m_order[m_nextRow] >> 32);
}

inline void InlineCalls::openRows(uint32_t at) {
  while (m_nextRow < m_order.size() && nextStart() <= at) {
    const auto number = static_cast<uint32_t>(m_order[m_nextRow++]);
    Row& row = m_rows[number];
    Site& around = m_sites[m_sites[row.site].parent];
    row.outer = around.openRow;
    around.openRow = number;
  }
}

// The row that started last among those of the site's children that are open; kNone without one.
inline uint32_t InlineCalls::innermostRow(Site& site, const Row* rows, uint32_t at) {
  while (site.openRow != kNone && rows[site.openRow].code.end <= at) {
    site.openRow = rows[site.openRow].outer;
  }
  return site.openRow;
}

// Makes m_path the calls around an address, from the function on. `place` is the function's own
// there and becomes that of the innermost code. Returns up to where, at most `end`, all this is so.
inline uint32_t InlineCalls::followPath(uint32_t at, uint32_t end, SourcePlace& place) {
  Site* const sites = m_sites.data();
  const Row* const rows = m_rows.data();
  size_t depth = 0;
  for (uint32_t site = 0;;) {
    const uint32_t number = innermostRow(sites[site], rows, at);
    if (number == kNone) break;
    const Row& row = rows[number];
    end = std::min(end, row.code.end);
    m_path[depth++] = {row.site, row.code.place.file, place};
    place = row.code.place;
    site = row.site;
  }
  spend(depth + 1);
  m_depth = depth;
  return end;
}

inline void InlineCalls::addPiece(const OpenCall& call, uint32_t start, uint32_t end) {
  Site& site = m_sites[call.site];
  if (site.lastPiece != kNone) {
    Piece& last = m_pieces[site.lastPiece];
    if (last.end == start && last.caller == call.caller) {
      last.end = end;
      return;
    }
  }
  if (m_pieces.size() >= m_maxParts) throwTooMany();
  const auto number = static_cast<uint32_t>(m_pieces.size());
  if (site.lastPiece == kNone) {
    site.firstPiece = number;
    site.file = call.file;
  } else {
    m_pieces[site.lastPiece].next = number;
  }
  site.lastPiece = number;
  m_pieces.push_back({start, end, call.caller, kNone});
}

// Rows that touch and have one place are parts of what a call was cut into.
inline void InlineCalls::addLine(uint32_t start, uint32_t end, const SourcePlace& place) {
  if (!place.known()) return;
  if (!m_lines.empty() && m_lines.back().end == start && m_lines.back().place == place) {
    m_lines.back().end = end;
  } else {
    m_lines.push_back({start, end, place});
  }
}

void InlineCalls::resolve(const std::vector<CodeRow>& ownLines) {
  sortRows();
  auto own = ownLines.begin();
  for (uint32_t at = 0, end = 0; at < m_size; at = end) {
    openRows(at);
    while (own != ownLines.end() && own->end <= at) ++own;
    const bool hasLine = own != ownLines.end() && own->start <= at;
    end = m_size;
    if (own != ownLines.end()) end = std::min(end, hasLine ? own->end : own->start);
    if (m_nextRow < m_order.size()) end = std::min(end, nextStart());
    SourcePlace place = hasLine ? own->place : SourcePlace();
    end = followPath(at, end, place);
    for (size_t depth = 0; depth < m_depth; ++depth) addPiece(m_path[depth], at, end);
    addLine(at, end, place);
  }
  for (size_t site = 1; site < m_sites.size(); ++site) addCalls(m_sites[site]);
}

// Code that was called from different places becomes a call for each of them.
void InlineCalls::addCalls(const Site& site) {
  if (site.firstPiece == kNone) return;
  if (site.firstPiece == site.lastPiece) {
    addCall(site, &m_pieces[site.firstPiece], &m_pieces[site.firstPiece] + 1);
    return;
  }
  m_sorted.clear();
  bool sameCaller = true;
  for (uint32_t i = site.firstPiece; i != kNone; i = m_pieces[i].next) {
    m_sorted.push_back(m_pieces[i]);
    sameCaller = sameCaller && m_pieces[i].caller == m_sorted.front().caller;
  }
  if (!sameCaller) {
    std::sort(m_sorted.begin(), m_sorted.end(), [](const Piece& a, const Piece& b) {
      return std::tie(a.caller.file, a.caller.line, a.start) <
             std::tie(b.caller.file, b.caller.line, b.start);
    });
  }
  const Piece* first = m_sorted.data();
  const Piece* const last = first + m_sorted.size();
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
  call.calleeFile = site.file;
  call.origin = site.origin;
  call.firstRange = static_cast<uint32_t>(m_ranges.size());
  call.rangeCount = static_cast<uint32_t>(last - first);
  for (; first != last; ++first) m_ranges.push_back({first->start, first->end});
  m_calls.push_back(call);
}

}  // namespace symforge_internal
