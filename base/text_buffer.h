// TextBuffer: the growing character buffer in which the text of a symbol file is built.
//
// A conversion fills one buffer. The text is passed on as a view and never copied. A large text is
// stored on huge pages, which are remapped instead of copied when it grows, so peak memory is the
// size of the text.
//
// Code that writes lines reserves once per line and then appends without growing:
//
//   LineWriter line(text, name.size() + 40);
//   line.str("FUNC ").hex(segment).chr(':').hex(offset).chr(' ').str(name).chr('\n');
//
// The LineWriter commits the bytes written when it is destroyed.

#pragma once

#include <emmintrin.h>

#include <cassert>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/huge_page_block.h"

namespace symforge_internal {

class TextBuffer {
 public:
  TextBuffer() = default;
  ~TextBuffer();
  TextBuffer(TextBuffer&& other) noexcept;
  TextBuffer& operator=(TextBuffer&& other) noexcept;
  TextBuffer(const TextBuffer&) = delete;
  TextBuffer& operator=(const TextBuffer&) = delete;

  // The text so far, valid until the next append. It is NUL-terminated only after a call of c_str()
  // or data().
  std::string_view view() const { return {data_, size_}; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The text as a NUL-terminated string. Valid until the next append.
  const char* c_str();

  // The text as a writable block of size() bytes, followed by a NUL. Valid until the next append.
  // For parsers that split their input in place.
  char* data();

  void append(std::string_view text) {
    char* to = prepare(text.size());
    if (!text.empty()) std::memcpy(to, text.data(), text.size());
    size_ += text.size();
  }

  // Inserts `text` at position `at`, at most size(). What follows is moved, or else what precedes,
  // if that is less and reserve_front() has left room.
  void insert(size_t at, std::string_view text);

  // Lets a text that becomes large leave room for `bytes` bytes in front of it. That takes
  // addresses, but no memory as long as they are not used.
  void reserve_front(size_t bytes) { front_wanted_ = bytes; }

  // Truncates the text to `size` bytes, at most size().
  void truncate(size_t size) {
    assert(size <= size_);
    size_ = size;
  }

  // Limits the text: growing it beyond `bytes`, plus at most one huge page, throws LimitExceeded.
  // `bytes` is at least size().
  void set_limit(size_t bytes) {
    assert(bytes >= size_);
    limit_ = bytes;
  }

  // SIZE_MAX: none.
  size_t limit() const { return limit_; }

  // Bytes that can be appended without moving the text.
  size_t room() const { return capacity_ - size_; }

  // Reserves `bytes` writable bytes after the text, without adding them to it. The pointer is valid
  // until the next call that may grow the buffer. Throws std::bad_alloc, or LimitExceeded if the
  // text would exceed its limit.
  char* prepare(size_t bytes) {
    if (capacity_ - size_ < bytes) grow(bytes);
    return data_ + size_;
  }

  // Adds the first `bytes` bytes written through prepare() to the text.
  void commit(size_t bytes) {
    assert(bytes <= capacity_ - size_);
    size_ += bytes;
  }

 private:
  void grow(size_t bytes);
  void grow_pages(size_t capacity);

  char* data_ = nullptr;  // from malloc, or in `pages_` once that is in use
  size_t size_ = 0;
  size_t capacity_ = 0;      // from data_ on
  size_t front_ = 0;         // bytes of `pages_` before data_
  size_t front_wanted_ = 0;  // see reserve_front()
  size_t limit_ = SIZE_MAX;
  HugePageBlock pages_;
};

// Limits the growth of a text to `bytes` while the object exists.
class TextLimit {
 public:
  TextLimit(TextBuffer& text, size_t bytes) : text_(text) {
    text_.set_limit(bytes < SIZE_MAX - text.size() ? text.size() + bytes : SIZE_MAX);
  }
  ~TextLimit() { text_.set_limit(SIZE_MAX); }
  TextLimit(const TextLimit&) = delete;
  TextLimit& operator=(const TextLimit&) = delete;

 private:
  TextBuffer& text_;
};

// Writes a number in lower-case hexadecimal without padding and returns the end of it. Always
// writes eight bytes; those after the end are zeros to be overwritten.
//
// All digits are computed at once: the nibbles are spread over the bytes of a word, and those above
// 9 are adjusted to letters. Addresses are about half of a symbol file; this takes a third of the
// time of std::to_chars.
inline char* put_hex(char* at, uint32_t number) {
  uint64_t word = number;
  word = (word | word << 16) & 0x0000FFFF0000FFFF;
  word = (word | word << 8) & 0x00FF00FF00FF00FF;
  word = (word | word << 4) & 0x0F0F0F0F0F0F0F0F;
  const uint64_t letters = (word + 0x0606060606060606) >> 4 & 0x0101010101010101;
  word = __builtin_bswap64(word + 0x3030303030303030 + letters * ('a' - '0' - 10));
  const unsigned digits = (35 - static_cast<unsigned>(__builtin_clz(number | 1))) / 4;
  word >>= 64 - 8 * digits;
  std::memcpy(at, &word, sizeof(word));
  return at + digits;
}

// Writes "FIRST SECOND " with the numbers as put_hex() writes them, and returns the end of it.
// Takes up to 18 bytes, some of which may be after the end.
//
// Line records begin so. The digits of both numbers are computed at once.
inline char* put_hex_pair(char* at, uint32_t first, uint32_t second) {
  const uint64_t both = uint64_t{__builtin_bswap32(second)} << 32 | __builtin_bswap32(first);
  const __m128i bytes = _mm_cvtsi64_si128(static_cast<int64_t>(both));
  const __m128i low_bits = _mm_set1_epi8(0x0F);
  const __m128i nibbles = _mm_unpacklo_epi8(_mm_and_si128(_mm_srli_epi16(bytes, 4), low_bits),
                                            _mm_and_si128(bytes, low_bits));
  const __m128i letters =
      _mm_and_si128(_mm_cmpgt_epi8(nibbles, _mm_set1_epi8(9)), _mm_set1_epi8('a' - '0' - 10));
  const __m128i digits = _mm_add_epi8(_mm_add_epi8(nibbles, _mm_set1_epi8('0')), letters);
  const auto put = [&at](int64_t word, uint32_t number) {
    const unsigned count = (35 - static_cast<unsigned>(__builtin_clz(number | 1))) / 4;
    const uint64_t text = static_cast<uint64_t>(word) >> (64 - 8 * count);
    std::memcpy(at, &text, sizeof(text));
    at[count] = ' ';
    at += count + 1;
  };
  put(_mm_cvtsi128_si64(digits), first);
  put(_mm_cvtsi128_si64(_mm_unpackhi_epi64(digits, digits)), second);
  return at;
}

// Writes a number below 10000 in decimal, with leading zeros if `padded`, and returns the end of
// it. Always writes four bytes; those after the end are to be overwritten.
inline char* put_dec4(char* at, uint32_t number, bool padded) {
  // Computes all four digits at once, then shifts out leading zeros.
  const uint32_t high = number / 100;
  const uint32_t low = number - high * 100;
  const uint32_t tens = high * 103 >> 10;  // high / 10
  const uint32_t units = low * 103 >> 10;  // low / 10
  uint32_t word = tens | (high - tens * 10) << 8 | units << 16 | (low - units * 10) << 24;
  const unsigned zeros = padded ? 0 : static_cast<unsigned>(__builtin_ctz(word | 0x80000000)) / 8;
  word = (word | 0x30303030) >> 8 * zeros;
  std::memcpy(at, &word, sizeof(word));
  return at + 4 - zeros;
}

// Writes a number in decimal and returns the end of it. Takes up to 10 bytes, some of which may be
// after the end. Faster than std::to_chars for numbers of up to eight digits.
inline char* put_dec(char* at, uint32_t number) {
  constexpr uint32_t kFourDigits = 10000;
  if (number < kFourDigits) return put_dec4(at, number, false);
  if (number >= kFourDigits * kFourDigits) return std::to_chars(at, at + 10, number).ptr;
  at = put_dec4(at, number / kFourDigits, false);
  return put_dec4(at, number % kFourDigits, true);
}

// Whether one of the 16 bytes at `text` is at most a carriage return. No printable character is.
inline bool may_end_line(const char* text) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  const __m128i low = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8('\r')), bytes);
  return _mm_movemask_epi8(low) != 0;
}

// Replaces each carriage return, line feed and NUL by a blank.
void blank_line_ends(char* text, size_t size);

// Appends one line, or one short record, to a TextBuffer. `max_bytes` is an upper bound of the
// bytes to be written: 20 per number plus the length of each string. Each write asserts that it
// stays within the bound.
class LineWriter {
 public:
  LineWriter(TextBuffer& text, size_t max_bytes)
      : text_(text), begin_(text.prepare(max_bytes)), at_(begin_), end_(begin_ + max_bytes) {}
  ~LineWriter() { text_.commit(static_cast<size_t>(at_ - begin_)); }
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  LineWriter& chr(char c) {
    assert(at_ < end_);
    *at_++ = c;
    return *this;
  }
  LineWriter& str(std::string_view text) {
    assert(text.size() <= static_cast<size_t>(end_ - at_));
    if (!text.empty()) std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
    return *this;
  }
  // Writes a name from a file and `more` after it, with blanks in place of characters that end a
  // line.
  LineWriter& name(std::string_view text, std::string_view more = {}) {
    char* const begin = at_;
    str(text).str(more);
    const size_t size = static_cast<size_t>(at_ - begin);
    constexpr size_t kBlock = 16;
    bool found = size < kBlock || may_end_line(at_ - kBlock);
    for (const char* block = begin; !found && block < at_ - kBlock; block += kBlock) {
      found = may_end_line(block);
    }
    if (found) blank_line_ends(begin, size);
    return *this;
  }
  // Lower-case hexadecimal without prefix or padding.
  LineWriter& hex(uint64_t number) {
    if (number > UINT32_MAX || end_ - at_ < 8) return number_in_base(number, 16);
    at_ = put_hex(at_, static_cast<uint32_t>(number));
    return *this;
  }
  LineWriter& dec(uint64_t number) {
    if (number > UINT32_MAX || end_ - at_ < 10) return number_in_base(number, 10);
    at_ = put_dec(at_, static_cast<uint32_t>(number));
    return *this;
  }
  LineWriter& dec_signed(int64_t number) {
    if (number < 0) return number_in_base(number, 10);
    return dec(static_cast<uint64_t>(number));
  }
  // Numbers separated by single blanks.
  template <typename... Numbers>
  LineWriter& hex_fields(uint64_t first, Numbers... rest) {
    hex(first);
    (chr(' ').hex(rest), ...);
    return *this;
  }
  template <typename... Numbers>
  LineWriter& dec_fields(int64_t first, Numbers... rest) {
    dec_signed(first);
    (chr(' ').dec_signed(rest), ...);
    return *this;
  }

 private:
  template <typename Number>
  LineWriter& number_in_base(Number number, int base) {
    const std::to_chars_result result = std::to_chars(at_, end_, number, base);
    assert(result.ec == std::errc());
    at_ = result.ptr;
    return *this;
  }

  TextBuffer& text_;
  char* begin_;
  char* at_;
  char* end_;
};

}  // namespace symforge_internal
