#include "symforge/src/emit/erase_marker.h"

#include <cstring>

namespace symforge_internal {

// The text is moved to its end character by character. What was moved contains no occurrence, so
// the next one always begins with the character that was moved last.
void eraseFromTheEnd(std::string& text, size_t start, std::string_view part) {
  size_t kept = text.size();
  for (size_t i = text.size(); i-- > start;) {
    text[--kept] = text[i];
    if (std::string_view(text).substr(kept).starts_with(part)) kept += part.size();
  }
  text.erase(start, kept - start);
}

bool hasCompilerMarker(std::string_view name) {
  if (name.empty()) return false;  // which can have no address
  const char* at = name.data();
  const char* const end = at + name.size();
  while ((at = static_cast<const char*>(memmem(at, static_cast<size_t>(end - at), "__", 2)))) {
    const std::string_view rest(at, static_cast<size_t>(end - at));
    if (rest.starts_with("__ptr64") || rest.starts_with("__cdecl")) return true;
    ++at;
  }
  return false;
}

}  // namespace symforge_internal
