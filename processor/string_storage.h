// StringStorage: stores the strings of a module while text is loaded.
//
// Strings are either copied to the module's arena, so that the text can be released, or stay in the
// text, where the end of their line is overwritten by a NUL. The second avoids a copy when the text
// outlives the module.

#pragma once

#include <string_view>

#include "base/arena.h"

namespace google_breakpad {

using symforge_internal::Arena;

class StringStorage {
 public:
  enum class Place { kArena, kText };

  // `arena` must outlive this object.
  StringStorage(Arena& arena, Place place) : arena_(arena), in_text_(place == Place::kText) {}

  // `text` is a part of the loaded text that extends to the end of its line. That end must have
  // been processed, because it is overwritten if the string stays in the text. The result is valid
  // as long as the arena or the text.
  const char* store(std::string_view text) {
    if (!in_text_) return arena_.copy(text);
    if (text.empty()) return "";
    const_cast<char*>(text.data())[text.size()] = '\0';
    return text.data();
  }

  Arena& arena() { return arena_; }

 private:
  Arena& arena_;
  const bool in_text_;
};

}  // namespace google_breakpad
