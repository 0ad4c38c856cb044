// Asking a resolver everything that it knows about an address, in a form that can be compared.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "tests/support/code_module.h"

namespace fuzzing {

// Symbols of one module, loaded at address 0 so that addresses are those of the file.
class Symbols {
 public:
  // Text, or a SYMB image that symb_validate() has passed. The bytes are copied.
  explicit Symbols(std::string_view file);

  google_breakpad::StackFrame frame(uint64_t address) const;
  // Null if there is none.
  std::unique_ptr<google_breakpad::WindowsFrameInfo> windows(uint64_t address) const;
  // The rules as one text; empty if there are none.
  std::string cfi(uint64_t address) const;

 private:
  google_breakpad::StackFrame question(uint64_t address) const;

  std::unique_ptr<char[]> bytes_;
  const test_support::TestModule module_{0};
  mutable google_breakpad::BasicSourceLineResolver resolver_;
};

// Addresses worth asking about: the hexadecimal numbers at the starts of lines and behind their
// keywords, with their sums with the number that follows, and the neighbours of all these.
std::vector<uint64_t> addresses_in(std::string_view text);

}  // namespace fuzzing
