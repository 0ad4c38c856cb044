// NumberCursor: a fast parser for the usual form of a line's fields: unsigned numbers separated by
// single blanks.
//
// On any other form (signs, "0x", runs of blanks, numbers long enough to overflow) it returns
// false, and the caller falls back to the exact parser. The text must end with a byte that is not a
// digit, such as NUL.

#pragma once

#include <array>
#include <cstdint>

namespace symforge_internal {

class NumberCursor {
 public:
  explicit NumberCursor(const char* at) : at_(at) {}
  const char* at() const { return at_; }

  // Reads a hexadecimal number of at most 15 digits, which cannot overflow.
  bool hex(uint64_t* value) {
    const char* const begin = at_;
    uint64_t number = 0;
    for (uint8_t digit = digit_of(*at_); digit < 16; digit = digit_of(*++at_)) {
      number = number << 4 | digit;
    }
    *value = number;
    return at_ != begin && at_ - begin <= 15;
  }

  // Reads a decimal number of at most 18 digits.
  bool decimal(long* value) {
    const char* const begin = at_;
    uint64_t number = 0;
    for (; static_cast<unsigned char>(*at_ - '0') < 10; ++at_) {
      number = number * 10 + static_cast<unsigned char>(*at_ - '0');
    }
    *value = static_cast<long>(number);
    return at_ != begin && at_ - begin <= 18;
  }

  bool chr(char expected) {
    if (*at_ != expected) return false;
    ++at_;
    return true;
  }
  bool blank() { return chr(' '); }

 private:
  static constexpr std::array<uint8_t, 256> make_digits() {
    std::array<uint8_t, 256> digits{};
    for (int c = 0; c < 256; ++c) digits[c] = 0xff;
    for (int i = 0; i < 10; ++i) digits['0' + i] = static_cast<uint8_t>(i);
    for (int i = 0; i < 6; ++i) {
      digits['a' + i] = digits['A' + i] = static_cast<uint8_t>(10 + i);
    }
    return digits;
  }
  static uint8_t digit_of(char c) {
    static constexpr std::array<uint8_t, 256> kDigits = make_digits();
    return kDigits[static_cast<unsigned char>(c)];
  }

  const char* at_;
};

}  // namespace symforge_internal
