// Conversions between SYMB and text in a TextBuffer: symb_read() and symb_write() of symb.h without
// copies of the text. Internal to the project.

#pragma once

#include <cstddef>

#include "base/limits.h"
#include "base/text_buffer.h"

namespace symforge_internal {

// As symb_write() in symb.h, but takes ownership of the text and parses it in place. The text ends
// at its first NUL, if there is one.
bool symb_write(TextBuffer symbol_data, char** out_buffer, size_t* out_buffer_size);

// The dialect of a text symbol file: that of the default mode, with I lines, or the published one,
// with INLINE lines, which all readers of the Breakpad format understand.
enum class TextDialect { kDefault, kStandard };

// As symb_read() in symb.h, but appends to a TextBuffer. Fails if the text would exceed
// limits::kTextOfSymb for a block of that size. On failure, `out` is unchanged.
bool symb_read(const char* block, size_t size, TextBuffer& out,
               TextDialect dialect = TextDialect::kDefault);

}  // namespace symforge_internal
