// What the operations on SYMB blocks share: unaligned access and the one test of whether something
// lies inside the block. Internal to the library.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// A number or record at any address: files from elsewhere need not keep the alignment.
template <typename T>
inline T symb_load(const char* at) {
  T value;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

template <typename T>
inline void symb_store(char* at, T value) {
  std::memcpy(at, &value, sizeof(value));
}

// Whether `count` records of `record_size` bytes at `offset` lie inside `size` bytes.
inline bool symb_holds(uint64_t size, uint64_t offset, uint64_t count, uint64_t record_size) {
  return offset <= size && count <= (size - offset) / record_size;
}
