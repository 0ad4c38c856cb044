// Adds what an image tells to a symbol file in the standard format that was made without it.

#pragma once

#include "base/text_buffer.h"
#include "symforge/src/pe/code_file.h"
#include "symforge/src/standard/standard_counts.h"

namespace symforge_internal {

// `text` begins with a MODULE line and has no INFO CODE_ID line. Inserts that after the MODULE
// line, and appends unwind rules unless `text` has some. What there is to say about the image is
// added to counts.messages. Throws LimitExceeded if `text` becomes too large.
void joinImage(const CodeFile& image, TextBuffer& text, StandardCounts& counts);

}  // namespace symforge_internal
