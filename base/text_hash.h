// TextHash: the hash function for names from untrusted files, also for the standard containers.
//
// The text gives the coefficients of a polynomial modulo the prime 2^61 - 1, which is evaluated at
// a random point that is constant within a process. Two different texts of up to n bytes have equal
// hashes at no more than n / 7 + 3 of the points, so no file can make its names collide. std::hash
// has no such point: names with equal hashes are easily computed.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/open_addressing_index.h"

namespace symforge_internal {

class TextHash {
 public:
  TextHash() : TextHash(hash_multiplier()) {}
  explicit TextHash(uint64_t point)
      : point_(point & kPrime), square_(reduced(product(point_, point_))) {}

  // A number of 61 bits in the upper part of the result.
  size_t operator()(std::string_view text) const {
    uint64_t value = text.size();
    const char* at = text.data();
    size_t left = text.size();
    // Two words at a time, so that most multiplications do not wait for the one before.
    for (; left > 2 * kWordBytes; at += 2 * kWordBytes, left -= 2 * kWordBytes) {
      const Wide words = product(word_at(at), point_) + word_at(at + kWordBytes);
      value = reduced(product(value, square_) + words);
    }
    for (; left > kWordBytes; at += kWordBytes, left -= kWordBytes) {
      value = reduced(product(value, point_) + word_at(at));
    }
    uint64_t last = 0;
    if (left != 0) std::memcpy(&last, at, left);
    value = reduced(product(value, point_) + last);
    // Without this the last word would choose the lower bits alone.
    return reduced(product(value, point_)) << (64 - kPrimeBits);
  }

 private:
  __extension__ using Wide = unsigned __int128;

  static constexpr unsigned kPrimeBits = 61;
  static constexpr uint64_t kPrime = (uint64_t{1} << kPrimeBits) - 1;
  static constexpr size_t kWordBytes = 7;  // always less than the prime

  static Wide product(uint64_t a, uint64_t b) { return Wide{a} * b; }
  // At most 2^61, from up to 2^124.
  static uint64_t reduced(Wide number) {
    const uint64_t sum =
        (static_cast<uint64_t>(number) & kPrime) + static_cast<uint64_t>(number >> kPrimeBits);
    return (sum & kPrime) + (sum >> kPrimeBits);
  }
  // The word at a position that more than kWordBytes follow.
  static uint64_t word_at(const char* at) {
    uint64_t word;
    std::memcpy(&word, at, sizeof(word));
    return word & (UINT64_MAX >> 8);
  }

  uint64_t point_;
  uint64_t square_;
};

}  // namespace symforge_internal
