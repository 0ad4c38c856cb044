// The identity of a text symbol file, for the C interface.

#pragma once

#include <string>
#include <string_view>

namespace symforge_internal {

// File names may contain blanks. A field that is not in the text is empty.
struct TextIdentity {
  std::string operating_system;
  std::string architecture;
  std::string debug_identifier;
  std::string debug_file;
  std::string code_identifier;
  std::string code_file;
};

// Reads the header lines: a MODULE line at the start, and the INFO lines that follow it. Returns
// false if there is no MODULE line with all four fields. Carriage returns and empty lines count as
// for the resolver.
bool read_identity(std::string_view text, TextIdentity& identity);

}  // namespace symforge_internal
