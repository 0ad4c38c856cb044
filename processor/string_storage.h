// StringStorage: where a text load keeps the strings of its module.
//
// Either in the module's arena, so that the text may go, or where they stand in the text, each
// ended by a NUL in the place of its line's end: a module that lives no longer than its text needs
// no second copy of it.

#pragma once

#include <string_view>

#include "base/arena.h"

namespace google_breakpad {

using symforge_internal::Arena;

class StringStorage {
 public:
  enum class Place { kArena, kText };

  // `arena` must outlive the store.
  StringStorage(Arena& arena, Place place) : arena_(arena), in_text_(place == Place::kText) {}

  // `text` is a part of the loaded text up to the end of a line, which has been read already and is
  // overwritten if the string stays there. Valid as long as the arena or the text.
  const char* keep(std::string_view text) {
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
