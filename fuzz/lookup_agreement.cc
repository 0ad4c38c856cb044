// Checks that lookups in a text and in its SYMB image return the same, except for documented
// differences: addresses beyond 32 bits, inline frames (images only), frame sizes truncated to 16
// bits, and parameter sizes where no STACK WIN line provides them.

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/addresses.h"
#include "fuzz/harness.h"
#include "tests/support/symb_images.h"
#include "tests/support/symbols.h"

using fuzzing::require;
using google_breakpad::WindowsFrameInfo;
using test_support::Symbols;

namespace {

void compare_frames(const Symbols& text, const Symbols& image, uint64_t address) {
  const auto a = text.frame(address);
  const auto b = image.frame(address);
  require(a.function_name == b.function_name, "one function name");
  require(a.function_base == b.function_base, "one function base");
  require(a.source_file_name == b.source_file_name, "one file name");
  require(a.source_line == b.source_line, "one line");
  require(a.source_line_base == b.source_line_base, "one line base");
  // Text returns inline frames for INLINE lines, images for all sites.
  if (a.inlines.empty()) return;
  require(a.inlines.size() == b.inlines.size(), "one number of inline frames");
  for (size_t i = 0; i < a.inlines.size(); ++i) {
    require(a.inlines[i].name == b.inlines[i].name, "one name of an inline frame");
    require(a.inlines[i].source_file_name == b.inlines[i].source_file_name, "one file of it");
    require(a.inlines[i].source_line == b.inlines[i].source_line, "one line of it");
  }
}

// Whether a line may contain a number beyond 32 bits: more than eight hexadecimal digits, or a
// minus sign. Identifiers may as well.
bool may_hold_wide_number(std::string_view line) {
  constexpr std::string_view kDigits = "0123456789abcdefABCDEF";
  if (line.starts_with("MODULE ") || line.starts_with("INFO ")) return false;
  size_t digits = 0;
  for (const char c : line) {
    digits = kDigits.find(c) == kDigits.npos ? 0 : digits + 1;
    if (digits > 8 || c == '-') return true;
  }
  return false;
}

bool may_hold_wide_number_anywhere(std::string_view text) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (may_hold_wide_number(line)) return true;
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return false;
}

bool same_record(const WindowsFrameInfo& a, const WindowsFrameInfo& b) {
  const auto same_low = [](uint32_t x, uint32_t y) { return (x & 0xFFFF) == y; };
  return a.type_ == b.type_ && same_low(a.prolog_size, b.prolog_size) &&
         same_low(a.epilog_size, b.epilog_size) && same_low(a.parameter_size, b.parameter_size) &&
         same_low(a.saved_register_size, b.saved_register_size) && a.local_size == b.local_size &&
         a.max_stack_size == b.max_stack_size &&
         a.allocates_base_pointer == b.allocates_base_pointer &&
         a.program_string == b.program_string;
}

bool comes_from_stack_win(const std::unique_ptr<WindowsFrameInfo>& info) {
  return info != nullptr && info->valid == WindowsFrameInfo::VALID_ALL;
}

void compare_frame_infos(const Symbols& text, const Symbols& image, uint64_t address) {
  const auto a = text.windows(address);
  const auto b = image.windows(address);
  require(comes_from_stack_win(a) == comes_from_stack_win(b), "one STACK WIN range");
  if (comes_from_stack_win(a)) require(same_record(*a, *b), "one STACK WIN record");
}

}  // namespace

FUZZ_TARGET(lookup_agreement)(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (may_hold_wide_number_anywhere(text)) return 0;
  const auto image = test_support::image_of(text);
  if (!image || !test_support::is_valid(*image)) return 0;
  // The text of an image ends at the first NUL.
  const Symbols from_text(text.c_str());
  const Symbols from_image(*image);
  for (const uint64_t address : fuzzing::addresses_in(text)) {
    if (address > UINT32_MAX) continue;
    compare_frames(from_text, from_image, address);
    compare_frame_infos(from_text, from_image, address);
    require(from_text.cfi(address) == from_image.cfi(address), "one set of rules");
  }
  return 0;
}
