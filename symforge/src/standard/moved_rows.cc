#include "symforge/src/standard/moved_rows.h"

#include <algorithm>

namespace symforge_internal {

void appendMovedRow(const SectionMap& sections, const PlacedFunction& function, const CodeRow& row,
                    Allowance& parts, CodeRows& moved) {
  for (uint32_t at = row.start; at < row.end;) {
    parts.spend(1);
    const SectionMap::MovedCode code = sections.movedCode(function.linkedRva + at);
    const uint32_t bytes = std::min(row.end - at, code.end - (function.linkedRva + at));
    const uint32_t start = code.rva - function.rva;
    if (!code.removed && start < function.size) {
      moved.push_back({start, start + std::min(bytes, function.size - start), row.place});
    }
    at += bytes;
  }
}

void moveRows(const SectionMap& sections, const PlacedFunction& function,
              std::span<const CodeRow> rows, Allowance& parts, CodeRows& moved) {
  moved.clear();
  for (const CodeRow& row : rows) appendMovedRow(sections, function, row, parts, moved);
  std::stable_sort(moved.begin(), moved.end(),
                   [](const CodeRow& a, const CodeRow& b) { return a.start < b.start; });
  CodeRow* kept = moved.begin();
  for (const CodeRow& row : moved) {
    if (kept != moved.begin()) kept[-1].end = std::min(kept[-1].end, row.start);
    if (kept != moved.begin() && kept[-1].start == kept[-1].end) --kept;
    *kept++ = row;
  }
  moved.truncate(static_cast<size_t>(kept - moved.begin()));
}

}  // namespace symforge_internal
