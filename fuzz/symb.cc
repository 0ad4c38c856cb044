// An untrusted SYMB image: validates it, converts it to text, and if it is valid runs lookups.

#include <cstring>
#include <memory>
#include <set>
#include <string_view>

#include "base/text_buffer.h"
#include "common/symb.h"
#include "common/symb_text.h"
#include "fuzz/harness.h"
#include "tests/support/symbols.h"

using symforge_internal::TextBuffer;
using symforge_internal::TextDialect;

namespace {

// An image in a block of exactly its size, as callers pass it.
class Image {
 public:
  explicit Image(std::string_view bytes) : size_(bytes.size()), bytes_(new char[bytes.size()]) {
    bytes.copy(bytes_.get(), size_);
  }

  bool valid() const { return symb_validate(reinterpret_cast<uintptr_t>(bytes_.get()), size_); }
  bool read(TextBuffer& text, TextDialect dialect) const {
    return symb_read(bytes_.get(), size_, text, dialect);
  }

 private:
  size_t size_;
  std::unique_ptr<char[]> bytes_;
};

// The words of the image and their sums, which are likely addresses and ends of ranges.
std::set<uint64_t> words_of(std::string_view image) {
  constexpr size_t kEnough = 300;
  std::set<uint64_t> words = {0, UINT32_MAX, UINT64_MAX};
  uint32_t before = 0;
  for (size_t at = 176; at + 4 <= image.size() && words.size() < kEnough; at += 4) {
    uint32_t word;
    std::memcpy(&word, image.data() + at, sizeof word);
    words.insert({word, uint64_t{word} - 1, uint64_t{before} + word});
    before = word;
  }
  return words;
}

}  // namespace

FUZZ_TARGET(symb)(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  Image image(bytes);
  const bool valid = image.valid();
  TextBuffer text;
  bool read = false;
  fuzzing::bounded_conversion(size, [&] {
    read = image.read(text, TextDialect::kDefault);
    return text.size();
  });
  fuzzing::require(read || text.empty(), "no text of what cannot be read");
  // In a larger block the text can exceed its limit.
  constexpr size_t kSmall = 32 * 1024;
  fuzzing::require(read || !valid || size > kSmall, "what is valid can be read");
  TextBuffer published;
  fuzzing::bounded_conversion(size, [&] {
    fuzzing::require(image.read(published, TextDialect::kStandard) || published.empty(),
                     "no published text of what cannot be read");
    return published.size();
  });
  if (!valid) return 0;

  const test_support::Symbols symbols(bytes);
  for (const uint64_t address : words_of(bytes)) {
    symbols.frame(address);
    symbols.windows(address);
    symbols.cfi(address);
  }
  return 0;
}
