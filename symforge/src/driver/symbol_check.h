// The complete check of a text symbol file: every line is read, and what the lines say is compared.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

// The kinds of lines, in the order of kLineKinds.
enum class LineKind : uint8_t {
  kModule,
  kInfo,
  kFile,
  kInlineOrigin,
  kFunction,
  kInlineCall,
  kInline,
  kLine,
  kPublic,
  kStackWin,
  kStackCfiInit,
  kStackCfi,
};
inline constexpr const char* kLineKinds[] = {
    "MODULE", "INFO", "FILE",   "INLINE_ORIGIN", "FUNC",           "INLINE",
    "I",      "line", "PUBLIC", "STACK WIN",     "STACK CFI INIT", "STACK CFI"};

// Line numbers count line feeds, from 1.
struct MalformedLine {
  uint64_t line;
  const char* reason;  // a constant
};

// A range of addresses that overlaps another one of its kind, or is not inside of what contains it.
struct BadRange {
  uint64_t line;
  LineKind kind;
  uint64_t address;
  uint64_t size;
  const char* reason;
};

struct SymbolCheck {
  static constexpr size_t kMaxExamples = 10;

  sym_info identity;
  bool own_dialect = false;  // has what only the dialect of default mode has
  uint64_t counts[std::size(kLineKinds)] = {};
  uint64_t malformed = 0;
  uint64_t bad_ranges = 0;
  std::vector<MalformedLine> malformed_lines;  // the first kMaxExamples
  std::vector<BadRange> bad_range_lines;       // the first kMaxExamples
  uint64_t functions_without_lines = 0;
  uint64_t functions_without_rules = 0;

  void add_malformed(uint64_t line, const char* reason);
};

// Checks a text, which is modified. `image_size`: bytes of the image in memory; empty: not known.
SymbolCheck check_symbol_text(TextBuffer& text, std::optional<uint64_t> image_size);

}  // namespace symforge_internal
