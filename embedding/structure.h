// Structures of the C interface, which begin with the size that the caller knows.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace symforge_internal {

// A larger size is that of a structure that was not initialized.
constexpr uint32_t kLargestStructure = 4096;

// Whether the caller has set a size that includes the fields of the first version, which are all
// up to now.
template <typename Structure>
bool has_size(const Structure* structure) {
  return structure != nullptr && structure->size >= sizeof(Structure) &&
         structure->size <= kLargestStructure;
}

// Stores `value` into an element at distance `size` from the next. Fields unknown to this version
// become zero.
template <typename Structure>
void store(Structure value, uint32_t size, void* element) {
  value.size = size;
  std::memcpy(element, &value, sizeof value);
  if (size > sizeof value) {
    std::memset(static_cast<char*>(element) + sizeof value, 0, size - sizeof value);
  }
}

// An array of structures of the caller's size.
template <typename Structure>
class CallersArray {
 public:
  CallersArray(Structure* first, size_t count)
      : first_(reinterpret_cast<char*>(first)), stride_(count == 0 ? 0 : first->size) {}

  void set(size_t index, const Structure& value) {
    store(value, stride_, first_ + index * stride_);
  }

 private:
  char* first_;
  uint32_t stride_;
};

}  // namespace symforge_internal
