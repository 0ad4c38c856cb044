#include "symforge/src/standard/moved_rows.h"

#include <algorithm>

namespace symforge_internal {

void appendMovedRow(const SectionMap& sections, const PlacedFunction& function, const CodeRow& row,
                    Allowance& parts, std::vector<CodeRow>& moved) {
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
              const std::vector<CodeRow>& rows, Allowance& parts, std::vector<CodeRow>& moved) {
  moved.clear();
  for (const CodeRow& row : rows) appendMovedRow(sections, function, row, parts, moved);
  std::stable_sort(moved.begin(), moved.end(),
                   [](const CodeRow& a, const CodeRow& b) { return a.start < b.start; });
  size_t kept = 0;
  for (const CodeRow& row : moved) {
    if (kept != 0) moved[kept - 1].end = std::min(moved[kept - 1].end, row.start);
    if (kept != 0 && moved[kept - 1].start == moved[kept - 1].end) --kept;
    moved[kept++] = row;
  }
  moved.resize(kept);
}

}  // namespace symforge_internal
