// FunctionRecord: a function, thunk or public symbol before it is printed.

#pragma once

#include <cstdint>
#include <vector>

#include "symforge/src/StreamReader.h"
#include "symforge/src/pdb/codeview.h"

namespace symforge_internal {

// One function, thunk or public symbol, from a module's symbols and lines. `operator<` is the order
// of the output; sortFunctions() sorts by it with smaller keys.
struct FunctionRecord {
  // `segment` of a record that is dropped: records are never erased.
  static constexpr uint32_t kDropped = 0xFFFFFFFF;
  // Bits of lineCount that mark an attached block of lines.
  static constexpr uint32_t kHasLines = 0xF0000000;

  DataPtr<char> name;
  DataPtr<CV_Line> lines;
  uint32_t lineCount = 0;        // number of lines, and kHasLines
  uint32_t segment = 0;          // section number from 1; 0: none
  uint32_t rva = 0;              // the symbol's raw offset where segment is 0
  uint32_t pre_omap_offset = 0;  // section-relative, before any mapping
  uint32_t fileIndex = 0;        // number of the source file; 0: none
  uint32_t length = 0;           // bytes of code
  uint32_t lineOffset = 0;       // section-relative start of the accepted block of lines
  uint32_t typeIndex = 0;        // 0: none
  uint32_t paramSize = 0;        // bytes of parameters on the stack
  // The function's inline sites: a range of the list in InlineSites, and the stream where their
  // symbols are. None are kept when one of them has no name.
  uint32_t firstInline = 0;
  uint32_t inlineCount = 0;
  uint16_t inlineStream = 0;
  bool inlinesSilenced = false;

  bool dropped() const { return segment == kDropped; }
  bool hasLines() const { return (lineCount & kHasLines) != 0; }

  bool operator<(const FunctionRecord& other) const {
    if (segment != other.segment) return segment < other.segment;
    if (rva != other.rva) return rva < other.rva;
    return typeIndex < other.typeIndex;
  }
};
using Functions = std::vector<FunctionRecord>;

}  // namespace symforge_internal
