// Bytes: builds a little-endian byte string. Also functions to dump and patch one.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace builders {

// Appends text, and numbers in little-endian order. Each call returns the object, so that a record
// is one expression: Bytes().u16(len).u16(kind).u32(offset).zstr("main").
class Bytes {
 public:
  Bytes() = default;
  explicit Bytes(std::string bytes) : bytes_(std::move(bytes)) {}

  Bytes& u8(uint8_t value) { return number(value, 1); }
  Bytes& u16(uint16_t value) { return number(value, 2); }
  Bytes& u32(uint32_t value) { return number(value, 4); }
  Bytes& u64(uint64_t value) { return number(value, 8); }

  // The bytes of `text`, without and with a terminating NUL.
  Bytes& text(std::string_view text) {
    bytes_.append(text);
    return *this;
  }
  Bytes& zstr(std::string_view text) { return this->text(text).u8(0); }

  Bytes& fill(size_t count, uint8_t value = 0) {
    bytes_.append(count, static_cast<char>(value));
    return *this;
  }
  // Pads to the next multiple of `alignment`, counted from the first byte.
  Bytes& align(size_t alignment, uint8_t value = 0) {
    return fill((alignment - bytes_.size() % alignment) % alignment, value);
  }

  size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }
  void reserve(size_t size) { bytes_.reserve(size); }
  const std::string& str() const& { return bytes_; }
  std::string str() && { return std::move(bytes_); }

 private:
  Bytes& number(uint64_t value, size_t size) {
    char little[8];
    for (size_t i = 0; i < size; ++i) little[i] = static_cast<char>(value >> (8 * i));
    bytes_.append(little, size);
    return *this;
  }

  std::string bytes_;
};

// Overwrites the bytes at `offset`, which must exist (std::out_of_range otherwise).
void put_u8(std::string& bytes, size_t offset, uint8_t value);
void put_u16(std::string& bytes, size_t offset, uint16_t value);
void put_u32(std::string& bytes, size_t offset, uint32_t value);
void put_u64(std::string& bytes, size_t offset, uint64_t value);

uint16_t get_u16(std::string_view bytes, size_t offset);
uint32_t get_u32(std::string_view bytes, size_t offset);
uint64_t get_u64(std::string_view bytes, size_t offset);

// "0600 6d61 696e": lower-case digits, a blank after every two bytes, a newline after every 16.
std::string hex_dump(std::string_view bytes);

// The bytes of a hex dump; blanks and newlines are skipped.
std::string from_hex(std::string_view dump);

// Reading and writing whole files. write_file replaces an existing file. Both throw
// std::runtime_error on failure.
void write_file(const std::string& path, std::string_view bytes);
std::string read_file(const std::string& path);

}  // namespace builders
