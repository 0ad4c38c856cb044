#include "symforge/src/standard/inline_calls.h"

#include <algorithm>
#include <cassert>
#include <tuple>

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

namespace {

// Inserts the last of `count` values among the others, which are in order. Returns how many of them
// it moves.
size_t moveIntoPlace(uint64_t* values, size_t count) {
  const uint64_t value = values[count - 1];
  size_t at = count - 1;
  for (; at != 0 && values[at - 1] > value; --at) values[at] = values[at - 1];
  values[at] = value;
  return count - 1 - at;
}

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

inline void InlineCalls::spend(size_t steps) {
  if (steps > m_budget) throwTooMany();
  m_budget -= steps;
}

void InlineCalls::throwTooMany() {
  throw pdb_exception("Inlined calls are cut into too many ranges");
}

// The rows from `first` on are those of the site that was opened last.
void InlineCalls::linkRows(size_t first) {
  const size_t count = m_rows.size();
  if (count > m_maxParts) throwTooMany();
  if (m_links.size() < count) m_links.resize(2 * count);
  RowLink* const links = m_links.data();
  const auto site = static_cast<uint32_t>(m_sites.size()) - 1;
  for (size_t i = first; i < count; ++i) links[i] = {site, kNone};
}

// By start, and those that start together in the order in which they were added.
void InlineCalls::sortRows() {
  const size_t count = m_rows.size();
  m_order.resize(count + 1);
  uint64_t* const order = m_order.data();
  const CodeRow* const rows = m_rows.begin();
  // Sites and their rows mostly come in the order of their addresses.
  const size_t most = 8 * count;
  size_t moves = 0;
  uint64_t last = 0;
  for (size_t i = 0; i < count; ++i) {
    order[i] = uint64_t{rows[i].start} << 32 | i;
    if (order[i] < last && moves <= most) moves += moveIntoPlace(order, i + 1);
    last = std::max(last, order[i]);
  }
  if (moves > most) std::sort(order, order + count);
  order[count] = UINT64_MAX;  // starts after every function
  m_nextRow = order;
}

inline uint32_t InlineCalls::nextStart() const { return static_cast<uint32_t>(*m_nextRow >> 32); }

// Opens the rows that start there. Returns how many of the open calls have no new row among the
// rows of their siblings, or of the siblings of a call around them.
[[gnu::always_inline]] inline size_t InlineCalls::openRows(uint32_t at) {
  Site* const sites = m_sites.data();
  size_t kept = m_depth;
  while (nextStart() <= at) {
    const auto number = static_cast<uint32_t>(*m_nextRow++);
    RowLink& link = m_links.data()[number];
    const Site& site = sites[link.site];
    Site& around = sites[site.parent];
    link.outer = around.openRow;
    around.openRow = number;
    kept = std::min<size_t>(kept, site.depth);
  }
  return kept;
}

// How many of the first `most` open calls go on at an address. The line of the outermost one's
// caller can have changed.
inline size_t InlineCalls::keptCalls(size_t most, uint32_t at, const SourcePlace& ownPlace) {
  OpenCall* const path = m_path.data();
  while (most != 0 && path[most - 1].end <= at) --most;
  if (most != 0 && path[0].caller != ownPlace) {
    endPiece(path[0], at);
    beginPiece(path[0], at, ownPlace);
  }
  return most;
}

// The row that started last among those of the site's children that are open; kNone without one.
inline uint32_t InlineCalls::innermostRow(Site& site, uint32_t at) const {
  const CodeRow* const rows = m_rows.begin();
  const RowLink* const links = m_links.data();
  while (site.openRow != kNone && rows[site.openRow].end <= at) {
    site.openRow = links[site.openRow].outer;
  }
  return site.openRow;
}

// Makes m_path the calls around an address, from the function on. The first `kept` are those.
inline void InlineCalls::openCalls(size_t kept, uint32_t at, const SourcePlace& ownPlace) {
  Site* const sites = m_sites.data();
  OpenCall* const path = m_path.data();
  size_t depth = kept;
  uint32_t site = 0;
  uint32_t end = m_size;
  SourcePlace place = ownPlace;
  if (kept != 0) {
    const OpenCall& last = path[kept - 1];
    site = last.site;
    end = last.end;
    place = last.place;
  }
  for (;;) {
    const uint32_t number = innermostRow(sites[site], at);
    if (number == kNone) break;
    const CodeRow& row = m_rows.begin()[number];
    site = m_links.data()[number].site;
    end = std::min(end, row.end);
    assert(depth < kMaxDepth);
    OpenCall& call = path[depth];
    const bool isOpen = depth < m_depth;
    if (!isOpen || call.site != site || call.caller != place) {
      if (isOpen) endPiece(call, at);
      call.site = site;
      if (sites[site].firstPiece == kNone) sites[site].file = row.place.file;
      beginPiece(call, at, place);
    }
    call.end = end;
    call.place = place = row.place;
    ++depth;
  }
  for (size_t i = depth; i < m_depth; ++i) endPiece(path[i], at);
  m_depth = depth;
}

inline void InlineCalls::beginPiece(OpenCall& call, uint32_t start, const SourcePlace& caller) {
  call.start = start;
  call.caller = caller;
}

[[gnu::always_inline]] inline void InlineCalls::endPiece(const OpenCall& call, uint32_t end) {
  if (m_pieces.size() >= m_maxParts) throwTooMany();
  Site& site = m_sites.data()[call.site];
  const auto number = static_cast<uint32_t>(m_pieces.size());
  (site.lastPiece == kNone ? site.firstPiece : m_pieces.data()[site.lastPiece].next) = number;
  site.lastPiece = number;
  // Made in place: copying it by wide loads would wait until its fields are stored.
  Piece& piece = m_pieces.emplace_back();
  piece.start = call.start;
  piece.end = end;
  piece.caller = call.caller;
}

// Rows that touch and have one place are parts of what a call was cut into.
inline CodeRow* InlineCalls::addLine(const CodeRow& line, CodeRow* last) {
  if (!line.place.known()) return last;
  if (last != m_lines.begin() && last[-1].end == line.start && last[-1].place == line.place) {
    last[-1].end = line.end;
    return last;
  }
  *last = line;
  return last + 1;
}

void InlineCalls::resolve(std::span<const CodeRow> ownLines) {
  sortRows();
  m_depth = 0;
  const CodeRow* own = ownLines.data();
  const CodeRow* const ownEnd = own + ownLines.size();
  // Every line starts where a row starts or ends, or with the function.
  CodeRow* line = m_lines.prepare(2 * (m_rows.size() + ownLines.size()) + 1);
  for (uint32_t at = 0, end = 0; at < m_size; at = end) {
    const size_t unchanged = openRows(at);
    while (own != ownEnd && own->end <= at) ++own;
    const bool hasLine = own != ownEnd && own->start <= at;
    const SourcePlace ownPlace = hasLine ? own->place : SourcePlace();
    openCalls(keptCalls(unchanged, at, ownPlace), at, ownPlace);
    spend(m_depth + 1);

    const OpenCall* const call = m_depth != 0 ? m_path.data() + m_depth - 1 : nullptr;
    end = call != nullptr ? call->end : m_size;
    if (own != ownEnd) end = std::min(end, hasLine ? own->end : own->start);
    end = std::min(end, nextStart());
    line = addLine({at, end, call != nullptr ? call->place : ownPlace}, line);
  }
  m_lines.commit(line);
  for (size_t i = 0; i < m_depth; ++i) endPiece(m_path[i], m_size);
  m_ranges.resize(m_pieces.size());
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
  const uint32_t firstRange =
      m_calls.empty() ? 0 : m_calls.back().firstRange + m_calls.back().rangeCount;
  InlinedCall& call = m_calls.emplace_back();  // as endPiece() does
  call.depth = site.depth;
  call.caller = first->caller;
  call.calleeFile = site.file;
  call.origin = site.origin;
  call.firstRange = firstRange;
  call.rangeCount = static_cast<uint32_t>(last - first);
  InlineRange* range = m_ranges.data() + firstRange;
  for (; first != last; ++first) *range++ = {first->start, first->end};
}

}  // namespace symforge_internal
