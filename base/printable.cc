#include "base/printable.h"

#include <cstddef>

namespace symforge_internal {

namespace {

constexpr char kDelete = 0x7F;
constexpr char kC1Lead = '\xC2';  // first byte of U+0080 to U+00BF

bool is_c0(char c) { return static_cast<unsigned char>(c) < 0x20 || c == kDelete; }

// Whether `c`, following kC1Lead, completes one of U+0080 to U+009F.
bool completes_c1(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x80 && byte <= 0x9F;
}

void append_hex_escape(std::string& text, char c) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  text.append("\\x").push_back(kDigits[byte >> 4]);
  text.push_back(kDigits[byte & 15]);
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const bool c1 = text[i] == kC1Lead && i + 1 < text.size() && completes_c1(text[i + 1]);
    if (c1) append_hex_escape(result, text[i++]);
    if (c1 || is_c0(text[i])) {
      append_hex_escape(result, text[i]);
    } else {
      result.push_back(text[i]);
    }
  }
  return result;
}

}  // namespace symforge_internal
