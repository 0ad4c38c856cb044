// Generates well-formed text symbol files, with lines in the order in which symforge writes them.

#pragma once

#include <cstdint>
#include <string>

namespace builders {

struct SymbolTextShape {
  uint32_t functions = 1000;
  uint32_t lines = 8;         // per function, on average
  uint32_t inline_depth = 0;  // nested sites around the middle of every function
  bool unwind = true;         // STACK CFI for every function, STACK WIN for some
};

// Functions start at 0x1000, with gaps between them; some gaps contain a public symbol. Equal
// shapes yield equal text.
std::string symbol_text(const SymbolTextShape& shape);

// The end of the address range of such a text.
uint64_t symbol_text_end(const SymbolTextShape& shape);

}  // namespace builders
