#include "base/open_addressing_index.h"

#include <sys/auxv.h>

#include <cstring>

namespace symforge_internal {

// The kernel passes 16 random bytes to each process. Multiplication by a random odd number
// distributes any set of keys well.
uint64_t hash_multiplier() {
  uint64_t number = 0x9E3779B97F4A7C15;
  if (const unsigned long bytes = getauxval(AT_RANDOM); bytes != 0) {
    std::memcpy(&number, reinterpret_cast<const void*>(bytes), sizeof(number));
  }
  return number | 1;
}

}  // namespace symforge_internal
