// InlineTree: the code ranges of one function's inline sites, and their I lines.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/emit/nested_range_set.h"

namespace symforge_internal {

// One code range of an inline site.
struct InlineSite {
  uint32_t offset = 0;       // RVA of the first byte
  uint32_t length = 0;       // bytes; 1: not known
  uint32_t file_id = 0;      // number of FILE lines
  uint32_t line_offset = 0;  // the source line itself, despite its published name
  uint32_t tower = 0;        // nesting depth of the site, 0 for the outermost
  uint32_t name = 0;         // as returned by InlineTree::addName
};

class InlineTree {
 public:
  // Starts the next function; keeps the memory.
  void clear();

  // Where to append the name of the next site, and the name's handle once it is there. What could
  // end a line becomes a blank.
  std::string& names() { return m_names; }
  uint32_t addName();
  size_t nameBytes() const { return m_names.size(); }
  size_t rangeCount() const { return m_ranges.size(); }

  // A range that is empty, wraps, equals one that is there or cuts one in part is dropped.
  void store(const InlineSite& site);

  // Appends the I lines. A range is printed when the next one starts (an unknown length becomes the
  // gap), and again for each enclosing range that ends there. Readers use the first line of a range
  // and ignore its repetitions.
  void print(TextBuffer& out);

 private:
  void printLine(const InlineSite& site, uint32_t length, TextBuffer& out) const;

  std::vector<InlineSite> m_sites;
  std::vector<AddressRange> m_ranges;  // of m_sites
  std::string m_names;
  std::vector<size_t> m_nameEnds;
  NestedRangeSet m_nesting;
  std::vector<uint32_t> m_open;  // last addresses of the ranges around the present one
};

}  // namespace symforge_internal
