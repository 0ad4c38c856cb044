// LineRecordBytes: parses a line record of the usual form: two hexadecimal and two decimal numbers
// of 1 to 8 digits, separated by single blanks, within 32 bytes.
//
// Most lines of a text are line records. Comparing 32 bytes finds all separators at once, so no
// number waits for the length of the one before it.

#pragma once

#include <emmintrin.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/symbol_text.h"

namespace symforge_internal {

class LineRecordBytes {
 public:
  // The bytes that must exist from the start of the line on; they may belong to other lines.
  static constexpr ptrdiff_t kReadable = 40;

  // `line` is the start of the line.
  [[gnu::always_inline]] explicit LineRecordBytes(const char* line) : line_(line) {
    const uint32_t first = separators_at(line) | separators_at(line + kBlock) << kBlock;
    const uint32_t second = first & (first - 1);
    const uint32_t third = second & (second - 1);
    end0_ = position_of(first);
    end1_ = position_of(second);
    end2_ = position_of(third);
    end3_ = position_of(third & (third - 1));
  }

  // Returns false if the line has another form. The fields have been set then.
  [[gnu::always_inline]] bool parse(LineFields* fields) const {
    if (!has_usual_ends()) return false;
    const __m128i hex = pair(digits(0, end0_), digits(end0_ + 1, end1_));
    const __m128i decimal = pair(digits(end1_ + 1, end2_), digits(end2_ + 1, end3_));

    const __m128i hex_values = _mm_sub_epi8(hex, _mm_set1_epi8('0'));
    const __m128i letter_values =
        _mm_sub_epi8(_mm_or_si128(hex, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
    const __m128i are_numbers = at_most(hex_values, 9);
    const __m128i are_letters = at_most(letter_values, 5);
    const __m128i are_hex = _mm_or_si128(_mm_or_si128(are_numbers, are_letters), are_zero(hex));
    const __m128i decimal_values = _mm_sub_epi8(decimal, _mm_set1_epi8('0'));
    const __m128i are_decimal = _mm_or_si128(at_most(decimal_values, 9), are_zero(decimal));
    if (_mm_movemask_epi8(_mm_and_si128(are_hex, are_decimal)) != 0xFFFF) return false;

    const __m128i letters = _mm_add_epi8(letter_values, _mm_set1_epi8(10));
    store(join_hex(_mm_or_si128(_mm_and_si128(are_numbers, hex_values),
                                _mm_and_si128(are_letters, letters))),
          &fields->address, &fields->size);
    store(join_decimal(_mm_subs_epu8(decimal, _mm_set1_epi8('0'))), &fields->line_number,
          &fields->source_file);
    return true;
  }

  // The line end. Valid if parse() returned true.
  const char* end() const { return line_ + end3_; }

 private:
  static constexpr int kBlock = sizeof(__m128i);

  // 0xFF in each byte that is at most `most`.
  static __m128i at_most(__m128i bytes, char most) {
    return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(most)), bytes);
  }
  // 32 if there is none.
  static unsigned position_of(uint32_t bits) {
    return static_cast<unsigned>(std::countr_zero(bits));
  }
  static __m128i are_zero(__m128i bytes) { return _mm_cmpeq_epi8(bytes, _mm_setzero_si128()); }

  // One bit for each blank or control character, of which line ends are a part.
  static uint32_t separators_at(const char* text) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    return static_cast<uint32_t>(_mm_movemask_epi8(at_most(bytes, ' ')));
  }

  // Numbers of 1 to 8 bytes, blanks between them, a line end after them. A length of 0 becomes a
  // large number, as does the one before a separator that was not found.
  bool has_usual_ends() const {
    const unsigned lengths =
        (end0_ - 1) | (end1_ - end0_ - 2) | (end2_ - end1_ - 2) | (end3_ - end2_ - 2);
    if (lengths >= 8 || end3_ >= 2 * kBlock) return false;
    const char last = line_[end3_];
    return line_[end0_] == ' ' && line_[end1_] == ' ' && line_[end2_] == ' ' &&
           (last == '\n' || last == '\r' || last == '\0');
  }

  // The bytes [begin, end) as the high bytes of the word, the last one highest, above zeros.
  uint64_t digits(unsigned begin, unsigned end) const {
    uint64_t word;
    std::memcpy(&word, line_ + begin, sizeof(word));
    return word << (64 - 8 * (end - begin));
  }

  static __m128i pair(uint64_t first, uint64_t second) {
    return _mm_unpacklo_epi64(_mm_cvtsi64_si128(static_cast<int64_t>(first)),
                              _mm_cvtsi64_si128(static_cast<int64_t>(second)));
  }

  // Two numbers, from their digits. Each step joins neighbours: two digits, two pairs, two fours.
  static __m128i join_hex(__m128i digits) {
    const __m128i pairs = _mm_srli_epi16(_mm_mullo_epi16(digits, _mm_set1_epi16(0x1001)), 8);
    const __m128i fours = _mm_madd_epi16(pairs, _mm_set1_epi32(1 << 16 | 256));
    const __m128i eights = _mm_or_si128(_mm_slli_epi64(fours, 16), _mm_srli_epi64(fours, 32));
    return _mm_and_si128(eights, _mm_set1_epi64x(0xFFFFFFFF));
  }
  static __m128i join_decimal(__m128i digits) {
    const __m128i pairs = _mm_srli_epi16(_mm_mullo_epi16(digits, _mm_set1_epi16(10 << 8 | 1)), 8);
    const __m128i fours = _mm_madd_epi16(pairs, _mm_set1_epi32(1 << 16 | 100));
    return _mm_add_epi64(_mm_mul_epu32(fours, _mm_set1_epi32(10000)), _mm_srli_epi64(fours, 32));
  }

  template <typename Number>
  static void store(__m128i numbers, Number* first, Number* second) {
    *first = static_cast<Number>(_mm_cvtsi128_si64(numbers));
    *second = static_cast<Number>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(numbers, numbers)));
  }

  const char* line_;
  unsigned end0_, end1_, end2_, end3_;  // positions of the byte after each number
};

}  // namespace symforge_internal
