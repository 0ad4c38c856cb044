// SymbStrings: builds the string table of a SYMB image: each distinct string once, in ascending
// order of unsigned bytes.
//
// Strings are added in the order in which the image's records refer to them. The offsets are
// returned in the same order, so no string has to be looked up again:
//
//   strings.add(a); strings.add(b); strings.add(a);
//   strings.place(184);
//   strings.next(); strings.next(); strings.next();   // of a, of b, of a
//
// The strings are not owned and must outlive the object.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string_view>
#include <vector>

#include "base/text_hash.h"

namespace symforge_internal {

class SymbStrings {
 public:
  // The string must not contain a NUL byte.
  void add(std::string_view text);

  // Like add(), for a NUL-terminated string that is often added again at the same address.
  void add_repeated(const char* text) {
    const auto address = reinterpret_cast<uintptr_t>(text);
    Recent& recent = recent_[address * kMultiplier >> (64 - kRecentBits)];
    if (recent.text == text) {
      references_.push_back(recent.number);
      return;
    }
    add(text);
    recent = {text, references_.back()};
  }

  // Sorts the strings and assigns their offsets, starting at `table_offset`. Call once, after the
  // last add().
  void place(uint64_t table_offset);

  // Total size of the strings in bytes, each with its NUL. Valid after place().
  uint64_t table_bytes() const { return table_bytes_; }

  // Copies the strings to `table`, which has table_bytes() zeroed bytes. Valid after place().
  void write(char* table) const;

  // Returns the offset of the next string in the order of add(). Valid after place().
  uint64_t next() { return offsets_[references_[next_reference_++]]; }

 private:
  void grow_index();

  static constexpr unsigned kRecentBits = 10;
  static constexpr uint64_t kMultiplier = 0x9E3779B97F4A7C15;
  struct Recent {
    const char* text = nullptr;
    uint32_t number = 0;
  };

  // A distinct string is identified by its number. The index is a hash table with linear probing. A
  // slot holds the upper half of the hash and the number plus 1, or 0 if it is free.
  const TextHash hash_;
  std::vector<std::string_view> distinct_;
  std::vector<uint64_t> index_;
  std::array<Recent, size_t{1} << kRecentBits> recent_;
  std::deque<uint32_t> references_;  // numbers in the order of add()
  std::vector<uint32_t> order_;      // numbers in sorted order
  std::vector<uint64_t> offsets_;    // by number
  uint64_t table_bytes_ = 0;
  size_t next_reference_ = 0;
};

}  // namespace symforge_internal
