// Names from files and command lines in messages.

#pragma once

#include <string>
#include <string_view>

namespace symforge_internal {

// `text` with each control character written as \xNN, so that a name can neither start a line of
// its own nor steer the terminal that shows it: bytes below 0x20, 0x7F, and the characters U+0080
// to U+009F of UTF-8. Everything else is unchanged, backslashes too.
std::string printable(std::string_view text);

}  // namespace symforge_internal
