// Generated text symbol files: well-formed, in the order in which the program writes them.

#pragma once

#include <cstdint>
#include <string>

namespace builders {

struct SymbolTextShape {
  uint32_t functions = 1000;
  uint32_t lines = 8;         // of a function, on average
  uint32_t inline_depth = 0;  // sites around the middle of every function, one inside the other
  bool unwind = true;         // STACK CFI for every function, STACK WIN for some
};

// Functions lie from 0x1000 on, with gaps, and publics in some of the gaps. The same shape always
// gives the same text.
std::string symbol_text(const SymbolTextShape& shape);

// Where the addresses of such a text end.
uint64_t symbol_text_end(const SymbolTextShape& shape);

}  // namespace builders
