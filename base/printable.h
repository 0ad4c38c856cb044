// Makes names from files and command lines safe to print in messages.

#pragma once

#include <string>
#include <string_view>

namespace symforge_internal {

// Returns `text` with each control character escaped as \xNN, so that a name can neither break a
// message's line nor send control sequences to a terminal. Escaped are bytes below 0x20, 0x7F, and
// the UTF-8 encodings of U+0080 to U+009F. Everything else is unchanged, including backslashes.
std::string printable(std::string_view text);

}  // namespace symforge_internal
