// The string table of a SYMB image under construction: each distinct string once, in ascending
// order of unsigned bytes.
//
// Strings are added in the order in which the image's records refer to them, and the offsets come
// back in that order, so that no string is ever looked up again:
//
//   strings.add(a); strings.add(b); strings.add(a);
//   strings.place(184);
//   strings.next(); strings.next(); strings.next();   // of a, of b, of a
//
// The strings are not owned and must stay in place.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace symforge_internal {

class SymbStrings {
 public:
  // No string may hold a NUL byte.
  void add(std::string_view text);

  // Sorts the strings and gives them their offsets from `table_offset` on. Nothing may be added
  // afterwards.
  void place(uint64_t table_offset);

  // Bytes that the strings take, each with a NUL behind it. Valid once placed.
  uint64_t table_bytes() const { return table_bytes_; }

  // Copies the strings to `table`, which has room for table_bytes() bytes of zeros.
  void write(char* table) const;

  // The offset of the next string in the order of adding. Valid once placed.
  uint64_t next() { return offsets_[references_[next_reference_++]]; }

 private:
  void grow_index();

  // A distinct string is known by its number. The index is a hash table with linear probing; a slot
  // holds the upper half of the string's hash and its number plus 1, or 0 if it is free.
  std::vector<std::string_view> distinct_;
  std::vector<uint64_t> index_;
  std::vector<uint32_t> references_;  // numbers in the order of adding
  std::vector<uint32_t> order_;       // numbers in the order of the table
  std::vector<uint64_t> offsets_;     // by number
  uint64_t table_bytes_ = 0;
  size_t next_reference_ = 0;
};

}  // namespace symforge_internal
