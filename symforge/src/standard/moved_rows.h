// Rows of a function of an image that was rewritten after linking: from the linked image, which the
// debug information describes, to the final one.

#pragma once

#include <span>

#include "base/limits.h"
#include "symforge/src/pdb/section_map.h"
#include "symforge/src/standard/code_rows.h"
#include "symforge/src/standard/function_layout.h"

namespace symforge_internal {

// Appends the parts of `row` that the final image has inside of the function, as bytes from the
// start of the function there. Parts of one row may come in any order. Spends one of `parts` for
// each part of the row.
void appendMovedRow(const SectionMap& sections, const PlacedFunction& function, const CodeRow& row,
                    Allowance& parts, CodeRows& moved);

// The same for all rows, and brings the result into order without overlap.
void moveRows(const SectionMap& sections, const PlacedFunction& function,
              std::span<const CodeRow> rows, Allowance& parts, CodeRows& moved);

}  // namespace symforge_internal
