// StringStorage: stores the strings of a module while text is loaded.
//
// Strings are either copied to the module's arena, so that the text can be released, or stay in the
// text, where the end of their line is overwritten by a NUL. The second avoids a copy when the text
// outlives the module.

#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
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

  // Like store(), for a text that is often equal to a recent one, whose copy is then used.
  const char* store_repeated(std::string_view text) {
    uint64_t ends[2];
    if (in_text_ || text.size() < sizeof(ends[0])) return store(text);
    std::memcpy(&ends[0], text.data(), sizeof(ends[0]));
    std::memcpy(&ends[1], text.data() + text.size() - sizeof(ends[1]), sizeof(ends[1]));
    const uint64_t hash = (ends[0] ^ std::rotl(ends[1], 29) ^ text.size()) * 0x9E3779B97F4A7C15;
    std::string_view& recent = recent_[hash >> (64 - kRecentBits)];
    if (recent != text) recent = {arena_.copy(text), text.size()};
    return recent.data();
  }

  Arena& arena() { return arena_; }
  bool in_text() const { return in_text_; }

 private:
  static constexpr unsigned kRecentBits = 8;

  Arena& arena_;
  const bool in_text_;
  std::array<std::string_view, size_t{1} << kRecentBits> recent_;
};

}  // namespace google_breakpad
