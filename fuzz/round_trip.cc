// Converts text to SYMB and back, twice. The first round may lose what SYMB does not store; the
// second must lose nothing.

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

#include "fuzz/harness.h"
#include "tests/support/symb_images.h"

using fuzzing::require;
using symforge_internal::TextDialect;
using test_support::image_of;
using test_support::text_of;

namespace {

// Whether the range on a line is empty: the truncation of a size of 4 GiB or more.
bool has_empty_range(std::string_view line) {
  for (const std::string_view kind : {"FUNC ", "I ", "STACK CFI INIT ", "STACK WIN "}) {
    if (!line.starts_with(kind)) continue;
    const size_t type = kind == "STACK WIN " ? sizeof("0 ") - 1 : 0;
    line.remove_prefix(std::min(kind.size() + type, line.size()));
    break;
  }
  return line.substr(std::min(line.find(' '), line.size())).starts_with(" 0 ");
}

// Whether a line of an image's text may change in the next round. An empty range is not parsed
// again. Nor is a line or inline record with a negative number, the truncation of a line or file
// number beyond 31 bits.
bool may_change_again(std::string_view line) {
  if (line.starts_with("MODULE ") || line.starts_with("INFO ")) return false;
  const bool record = line.starts_with("I ") || line.starts_with("FILE ") ||
                      line.find_first_of("0123456789abcdef") == 0;
  return has_empty_range(line) || (record && line.find(" -") != line.npos);
}

// Whether the size of a STACK WIN record may have been truncated from more than 32 bits. Nested
// ranges can then have become equal, and only the first of those is parsed again.
bool may_have_been_cut(std::string_view line) {
  if (!line.starts_with("STACK WIN ")) return false;
  size_t digits = 0;
  for (const char c : line) {
    digits = std::isxdigit(static_cast<unsigned char>(c)) ? digits + 1 : 0;
    if (digits > 8) return true;
  }
  return false;
}

template <typename Predicate>
bool any_line(std::string_view text, Predicate predicate) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (predicate(line)) return true;
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return false;
}

}  // namespace

FUZZ_TARGET(round_trip)(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const auto image = image_of(input);
  if (!image) return 0;
  // I lines cannot express everything that INLINE lines can: such a file is converted back to the
  // published form.
  const bool is_published =
      any_line(input, [](std::string_view line) { return line.starts_with("INLINE "); });
  const auto dialect = is_published ? TextDialect::kStandard : TextDialect::kDefault;
  const auto text = text_of(*image, dialect);
  require(text.has_value(), "an image that was written can be read");
  if (any_line(*text, may_change_again) || any_line(input, may_have_been_cut)) return 0;
  // Carriage returns in names come back as blanks, which split or are cut in the second reading.
  if (input.find('\r') != std::string::npos) return 0;
  const auto second_image = image_of(*text);
  require(second_image.has_value(), "its text has an identity");
  // Addresses beyond 4 GiB were truncated, so tables may be unsorted.
  if (!test_support::is_valid(*image)) return 0;
  require(test_support::is_valid(*second_image), "the image of such a text is good");
  const auto second_text = text_of(*second_image, dialect);
  require(second_text == text, "a second trip changes no text");
  require(image_of(*second_text) == second_image, "a third one changes no image");
  return 0;
}
