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
    uint32_t& number = m_index[key];
    if (number == 0) {
      m_values.push_back(std::move(value));
      number = static_cast<uint32_t>(m_values.size());
    }
    return number - 1;
  }

  bool contains(uint32_t key) const { return m_index.find(key) != 0; }

  // Null when there is no entry. The pointer is valid until the next insert.
  const T* find(uint32_t key) const {
    const uint32_t number = m_index.find(key);
    return number == 0 ? nullptr : &m_values[number - 1];
  }
  T* find(uint32_t key) { return const_cast<T*>(std::as_const(*this).find(key)); }

  // All values in insertion order.
  const std::vector<T>& values() const { return m_values; }
  std::vector<T>& values() { return m_values; }

 private:
  std::vector<T> m_values;
  OpenAddressingIndex m_index;
};

}  // namespace symforge_internal
