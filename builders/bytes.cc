#include "builders/bytes.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace builders {

namespace {

void put(std::string& bytes, size_t offset, uint64_t value, size_t size) {
  for (size_t i = 0; i < size; ++i) bytes.at(offset + i) = static_cast<char>(value >> (8 * i));
}

uint64_t get(std::string_view bytes, size_t offset, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) {
    value |= uint64_t{static_cast<unsigned char>(bytes.at(offset + i))} << (8 * i);
  }
  return value;
}

constexpr std::string_view kDigits = "0123456789abcdef";

}  // namespace

void put_u8(std::string& bytes, size_t offset, uint8_t value) { put(bytes, offset, value, 1); }
void put_u16(std::string& bytes, size_t offset, uint16_t value) { put(bytes, offset, value, 2); }
void put_u32(std::string& bytes, size_t offset, uint32_t value) { put(bytes, offset, value, 4); }
void put_u64(std::string& bytes, size_t offset, uint64_t value) { put(bytes, offset, value, 8); }

uint16_t get_u16(std::string_view bytes, size_t offset) {
  return static_cast<uint16_t>(get(bytes, offset, 2));
}
uint32_t get_u32(std::string_view bytes, size_t offset) {
  return static_cast<uint32_t>(get(bytes, offset, 4));
}
uint64_t get_u64(std::string_view bytes, size_t offset) { return get(bytes, offset, 8); }

std::string hex_dump(std::string_view bytes) {
  std::string dump;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i % 16 == 0 && i > 0) {
      dump += '\n';
    } else if (i % 2 == 0 && i > 0) {
      dump += ' ';
    }
    const auto byte = static_cast<unsigned char>(bytes[i]);
    dump += kDigits[byte >> 4];
    dump += kDigits[byte & 15];
  }
  return dump;
}

std::string from_hex(std::string_view dump) {
  std::string bytes;
  int high = -1;
  for (const char c : dump) {
    if (c == ' ' || c == '\n') continue;
    const size_t digit = kDigits.find(c);
    if (digit == std::string_view::npos) throw std::runtime_error("no hex digit");
    if (high < 0) {
      high = static_cast<int>(digit);
    } else {
      bytes += static_cast<char>(high * 16 + static_cast<int>(digit));
      high = -1;
    }
  }
  return bytes;
}

void write_file(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace builders
