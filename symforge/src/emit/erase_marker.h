// Taking a marker of the compiler out of a name.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace symforge_internal {

// Takes the last occurrence of `part` out of what `text` has from `start` on until there is none,
// those included that form when the text closes up. Linear in the length of the text.
void eraseFromTheEnd(std::string& text, size_t start, std::string_view part);

}  // namespace symforge_internal
