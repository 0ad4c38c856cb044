// Removing a marker of the compiler from a name.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace symforge_internal {

// Removes the last occurrence of `part` in `text` from `start` on until there is none, including
// those that only a removal creates. Linear in the length of the text.
void eraseFromTheEnd(std::string& text, size_t start, std::string_view part);

// Whether a name has "__ptr64" or "__cdecl", which only the Windows compiler writes. For most names
// one quick scan shows that it has not.
bool hasCompilerMarker(std::string_view name);

}  // namespace symforge_internal
