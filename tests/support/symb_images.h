// Conversions between text and SYMB images.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/text_buffer.h"
#include "common/symb.h"
#include "common/symb_text.h"

namespace test_support {

// The image of a text; nullopt if the text has no identity.
inline std::optional<std::string> image_of(const std::string& text) {
  char* image = nullptr;
  size_t size = 0;
  if (!symb_write(text.c_str(), &image, &size)) return std::nullopt;
  const std::unique_ptr<char[]> owner(image);
  return std::string(image, size);
}

inline bool is_valid(const std::string& image) {
  return symb_validate(reinterpret_cast<uintptr_t>(image.data()), image.size());
}

// The text of an image; nullopt if it cannot be read.
inline std::optional<std::string> text_of(
    const std::string& image,
    symforge_internal::TextDialect dialect = symforge_internal::TextDialect::kDefault) {
  symforge_internal::TextBuffer text;
  if (!symb_read(image.data(), image.size(), text, dialect)) return std::nullopt;
  return std::string(text.view());
}

}  // namespace test_support
