// Little-endian integers with alignment 1, as stored in files: a record of them can overlay any
// byte of a mapping. Reading one compiles to a single load.

#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace symforge_internal {

template <typename T>
class LittleEndian {
 public:
  operator T() const {  // NOLINT(google-explicit-constructor): used like the integer itself
    static_assert(std::endian::native == std::endian::little);
    T value;
    std::memcpy(&value, bytes_, sizeof(value));
    return value;
  }

 private:
  unsigned char bytes_[sizeof(T)];
};

using le_uint16 = LittleEndian<uint16_t>;
using le_uint32 = LittleEndian<uint32_t>;
using le_int16 = LittleEndian<int16_t>;
using le_int32 = LittleEndian<int32_t>;

static_assert(sizeof(le_uint32) == 4 && alignof(le_uint32) == 1);

}  // namespace symforge_internal
