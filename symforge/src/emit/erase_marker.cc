#include "symforge/src/emit/erase_marker.h"

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

}  // namespace symforge_internal
