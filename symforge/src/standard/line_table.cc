#include "symforge/src/standard/line_table.h"

#include <algorithm>

namespace symforge_internal {

namespace {

constexpr uint32_t kLineNumberMask = 0x00FFFFFF;

// Numbers by which compilers mark code that a debugger steps over or into: no lines, the code
// belongs to the record before.
constexpr uint32_t kAlwaysStepInto = 0xFEEFEE;
constexpr uint32_t kNeverStepInto = 0xF00F00;

}  // namespace

void LineTable::begin(uint32_t size) {
  m_size = size;
  m_firstFile = kNoFile;
  m_sorted = true;
  m_rows.clear();
}

void LineTable::add(const CV_Line* lines, size_t count, uint32_t shift, uint32_t file) {
  CodeRow* const begin = m_rows.prepare(count);
  CodeRow* at = begin;
  uint32_t last = m_rows.empty() ? 0 : begin[-1].start;
  for (size_t i = 0; i < count; ++i) {
    const uint32_t start = lines[i].offset + shift;
    const uint32_t line = lines[i].flags & kLineNumberMask;
    if (start >= m_size || line == kAlwaysStepInto || line == kNeverStepInto) continue;
    if (start < last) m_sorted = false;
    last = start;
    *at++ = {start, m_size, {file, line}};
  }
  if (m_rows.empty() && at != begin) m_firstFile = file;
  m_rows.commit(at);
}

void LineTable::finish() {
  if (!m_sorted) {
    std::stable_sort(m_rows.begin(), m_rows.end(),
                     [](const CodeRow& a, const CodeRow& b) { return a.start < b.start; });
  }
  CodeRow* kept = m_rows.begin();
  const CodeRow* const last = m_rows.end();
  for (const CodeRow* row = kept; row != last; ++row) {
    const uint32_t end = row + 1 != last ? row[1].start : m_size;
    if (end == row->start) continue;
    *kept = *row;
    kept++->end = end;
  }
  m_rows.truncate(static_cast<size_t>(kept - m_rows.begin()));
}

}  // namespace symforge_internal
