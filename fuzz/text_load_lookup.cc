// Loads a text symbol file into the resolver and runs every kind of lookup.

#include <string_view>

#include "fuzz/addresses.h"
#include "fuzz/harness.h"
#include "tests/support/symbols.h"

FUZZ_TARGET(text_load_lookup)(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (text.starts_with("SYMB")) return 0;  // not validated here: see symb.cc
  const test_support::Symbols symbols(text);
  for (const uint64_t address : fuzzing::addresses_in(text)) {
    const google_breakpad::StackFrame frame = symbols.frame(address);
    fuzzing::require(frame.function_base <= address, "a function begins at or below the address");
    fuzzing::require(frame.source_line_base <= address, "so does a line");
    symbols.windows(address);
    symbols.cfi(address);
  }
  return 0;
}
