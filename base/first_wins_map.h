// FirstWinsMap: values under 32-bit keys. The first value of a key is kept. Values are stored in
// insertion order.

#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "base/open_addressing_index.h"

namespace symforge_internal {

template <typename T>
class FirstWinsMap {
 public:
  // Adds `value` under a new key. If the key exists, its value is kept and `value` is not moved
  // from. Returns the index of the key's value in values().
  uint32_t insert(uint32_t key, T&& value) {
    uint32_t& number = index_[key];
    if (number == 0) {
      values_.push_back(std::move(value));
      number = static_cast<uint32_t>(values_.size());
    }
    return number - 1;
  }

  bool contains(uint32_t key) const { return index_.find(key) != 0; }

  // Null when there is no entry. The pointer is valid until the next insert.
  const T* find(uint32_t key) const {
    const uint32_t number = index_.find(key);
    return number == 0 ? nullptr : &values_[number - 1];
  }
  T* find(uint32_t key) { return const_cast<T*>(std::as_const(*this).find(key)); }

  // For a key that is searched soon: prefetch_index() first, and prefetch_value() when that has had
  // the time of some cache misses.
  void prefetch_index(uint32_t key) const { index_.prefetch(key); }
  void prefetch_value(uint32_t key) const { __builtin_prefetch(find(key)); }

  // All values in insertion order.
  const std::vector<T>& values() const { return values_; }
  std::vector<T>& values() { return values_; }

 private:
  std::vector<T> values_;
  OpenAddressingIndex index_;
};

}  // namespace symforge_internal
