#include "symforge/src/emit/inline_tree.h"

#include <string_view>

#include "common/symbol_text.h"

namespace symforge_internal {

void InlineTree::clear() {
  m_sites.clear();
  m_ranges.clear();
  m_names.clear();
  m_nameEnds.clear();
}

uint32_t InlineTree::addName() {
  const size_t start = m_nameEnds.empty() ? 0 : m_nameEnds.back();
  blank_line_ends(m_names.data() + start, m_names.size() - start);
  m_nameEnds.push_back(m_names.size());
  return static_cast<uint32_t>(m_nameEnds.size() - 1);
}

void InlineTree::store(const InlineSite& site) {
  const uint32_t high = site.offset + site.length - 1;
  if (site.length == 0 || high < site.offset) return;
  m_sites.push_back(site);
  m_ranges.push_back({site.offset, high});
}

void InlineTree::print(TextBuffer& out) {
  m_open.clear();
  const InlineSite* last = nullptr;
  for (const uint32_t position : m_nesting.nest(m_ranges)) {
    const InlineSite& site = m_sites[position];
    for (; !m_open.empty() && m_open.back() < site.offset; m_open.pop_back())
      printLine(*last, last->length, out);
    if (last != nullptr) {
      const bool known = last->length != 1;
      printLine(*last, known ? last->length : site.offset - last->offset - 1, out);
    }
    last = &site;
    m_open.push_back(m_ranges[position].high);
  }
  if (last == nullptr) return;
  // The ranges that are still open, and the enclosing function.
  for (size_t i = 0; i <= m_open.size(); ++i) printLine(*last, last->length, out);
}

void InlineTree::printLine(const InlineSite& site, uint32_t length, TextBuffer& out) const {
  const size_t start = site.name == 0 ? 0 : m_nameEnds[site.name - 1];
  const auto name = std::string_view(m_names).substr(start, m_nameEnds[site.name] - start);
  append_line(out,
              InlineFields{site.offset, length, site.line_offset, site.file_id, site.tower, name});
}

}  // namespace symforge_internal
