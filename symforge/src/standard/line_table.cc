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
  uint32_t last = m_rows.empty() ? 0 : m_rows.back().start;
  for (size_t i = 0; i < count; ++i) {
    const uint32_t start = lines[i].offset + shift;
    const uint32_t line = lines[i].flags & kLineNumberMask;
    if (start >= m_size || line == kAlwaysStepInto || line == kNeverStepInto) continue;
    if (start < last) m_sorted = false;
    last = start;
    if (m_rows.empty()) m_firstFile = file;
    m_rows.push_back({start, m_size, {file, line}});
  }
}

void LineTable::finish() {
  if (!m_sorted) {
    std::stable_sort(m_rows.begin(), m_rows.end(),
                     [](const CodeRow& a, const CodeRow& b) { return a.start < b.start; });
  }
  size_t kept = 0;
  for (size_t i = 0; i < m_rows.size(); ++i) {
    const uint32_t end = i + 1 < m_rows.size() ? m_rows[i + 1].start : m_size;
    if (end == m_rows[i].start) continue;
    m_rows[kept] = m_rows[i];
    m_rows[kept++].end = end;
  }
  m_rows.resize(kept);
}

}  // namespace symforge_internal
