// NumberCursor: a fast parser for the usual form of a line's fields: unsigned numbers separated by
// single blanks.
//
// Where 16 bytes are readable, numbers of up to 8 digits are read without a loop: its end would be
// unpredictable.
//
// On any other form (signs, "0x", runs of blanks, numbers long enough to overflow) it returns
// false, and the caller falls back to the exact parser. The text must end with a byte that is not a
// digit, such as NUL.

#pragma once

#include <emmintrin.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace symforge_internal {

class NumberCursor {
 public:
  explicit NumberCursor(const char* at) : NumberCursor(at, at) {}
  // The bytes up to `readable_end` exist; they may belong to other lines.
  NumberCursor(const char* at, const char* readable_end) : at_(at), readable_end_(readable_end) {}
  const char* at() const { return at_; }

  // Reads a hexadecimal number of at most 15 digits, which cannot overflow.
  bool hex(uint64_t* value) {
    if (readable_end_ - at_ >= kWide) {
      const Digits digits = hex_digits();
      if (digits.count <= 8) {
        *value = digits.hex();
        at_ += digits.count;
        return digits.count != 0;
      }
    }
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
    if (readable_end_ - at_ >= kWide) {
      const Digits digits = decimal_digits();
      if (digits.count <= 8) {
        *value = static_cast<long>(digits.decimal());
        at_ += digits.count;
        return digits.count != 0;
      }
    }
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
  static constexpr ptrdiff_t kWide = sizeof(__m128i);

  // The first 8 bytes as values of digits, and the number of digits among the first 16 bytes.
  struct Digits {
    uint64_t bytes;
    unsigned count;

    // One digit in each byte, the last digit in the highest one. Each step joins neighbours.
    uint64_t right_aligned() const { return count == 0 ? 0 : bytes << (64 - 8 * count); }
    uint64_t hex() const {
      uint64_t value = right_aligned();
      value = (value << 4 | value >> 8) & 0x00FF00FF00FF00FF;
      value = (value << 8 | value >> 16) & 0x0000FFFF0000FFFF;
      return (value << 16 | value >> 32) & 0xFFFFFFFF;
    }
    uint64_t decimal() const {
      uint64_t value = right_aligned();
      value = (value * 10 + (value >> 8)) & 0x00FF00FF00FF00FF;
      value = (value * 100 + (value >> 16)) & 0x0000FFFF0000FFFF;
      return (value * 10000 + (value >> 32)) & 0xFFFFFFFF;
    }
  };

  __m128i next_bytes() const { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at_)); }
  // 0xFF in each byte whose value is at most `most`.
  static __m128i at_most(__m128i bytes, char most) {
    return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(most)), bytes);
  }
  static Digits digits_of(__m128i values, __m128i are_digits) {
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(are_digits));
    return {static_cast<uint64_t>(_mm_cvtsi128_si64(values)),
            static_cast<unsigned>(std::countr_one(mask))};
  }
  Digits decimal_digits() const {
    const __m128i values = _mm_sub_epi8(next_bytes(), _mm_set1_epi8('0'));
    return digits_of(values, at_most(values, 9));
  }
  Digits hex_digits() const {
    const __m128i numbers = _mm_sub_epi8(next_bytes(), _mm_set1_epi8('0'));
    const __m128i are_numbers = at_most(numbers, 9);
    const __m128i lower_case = _mm_or_si128(next_bytes(), _mm_set1_epi8(0x20));
    const __m128i letters = _mm_sub_epi8(lower_case, _mm_set1_epi8('a'));
    const __m128i are_letters = at_most(letters, 5);
    const __m128i values =
        _mm_or_si128(_mm_and_si128(are_numbers, numbers),
                     _mm_and_si128(are_letters, _mm_add_epi8(letters, _mm_set1_epi8(10))));
    return digits_of(values, _mm_or_si128(are_numbers, are_letters));
  }

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
  const char* readable_end_;
};

}  // namespace symforge_internal
