// Text to SYMB and back. The first trip may lose what the format does not carry; the second loses
// nothing.

#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/harness.h"
#include "fuzz/symb_images.h"

using fuzzing::image_of;
using fuzzing::require;
using fuzzing::text_of;

namespace {

// Whether a line record or an inline record may hold a negative number: what is left of a number of
// a line or a file beyond 31 bits, and not read again.
bool may_hold_negative_number(std::string_view text) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    const char first = line.empty() ? ' ' : line[0];
    const bool record = line.starts_with("I ") || (first >= '0' && first <= '9') ||
                        (first >= 'a' && first <= 'f') || line.starts_with("FILE ");
    if (record && line.find(" -") != line.npos) return true;
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto image = image_of(std::string(reinterpret_cast<const char*>(data), size));
  if (!image) return 0;
  const auto text = text_of(*image);
  require(text.has_value(), "an image that was written can be read");
  const auto second_image = image_of(*text);
  require(second_image.has_value(), "its text has an identity");
  // Addresses beyond 4 GiB were cut, and their tables may be out of order.
  if (!fuzzing::is_valid(*image) || may_hold_negative_number(*text)) return 0;
  require(fuzzing::is_valid(*second_image), "the image of such a text is good");
  const auto second_text = text_of(*second_image);
  require(second_text == text, "a second trip changes no text");
  require(image_of(*second_text) == second_image, "a third one changes no image");
  return 0;
}
