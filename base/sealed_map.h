// SealedMap: an ordered map that is filled, then sealed, then read. The first entry of a key is
// kept. It takes no memory besides the entries, and sealing sorted input is a single pass.

#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace symforge_internal {

// KeyOf: function object that returns the key of an entry. Keys have `<` and `==`.
template <typename Entry, typename KeyOf>
class SealedMap {
 public:
  using const_iterator = typename std::vector<Entry>::const_iterator;

  void reserve(size_t entries) { m_entries.reserve(entries); }
  void add(Entry entry) { m_entries.push_back(std::move(entry)); }

  // Sorts the entries by key and keeps the first of each key.
  void seal() {
    const auto before = [](const Entry& a, const Entry& b) { return KeyOf()(a) < KeyOf()(b); };
    const auto same = [](const Entry& a, const Entry& b) { return KeyOf()(a) == KeyOf()(b); };
    if (!std::is_sorted(m_entries.begin(), m_entries.end(), before)) {
      std::stable_sort(m_entries.begin(), m_entries.end(), before);
    }
    m_entries.erase(std::unique(m_entries.begin(), m_entries.end(), same), m_entries.end());
  }
  // Frees reserved memory that is not used.
  void shrink_to_fit() { m_entries.shrink_to_fit(); }

  // Returns the entry with exactly this key, or null. The map must be sealed.
  template <typename Key>
  const Entry* find(const Key& key) const {
    const auto found = std::lower_bound(
        m_entries.begin(), m_entries.end(), key,
        [](const Entry& entry, const Key& wanted) { return KeyOf()(entry) < wanted; });
    return found != m_entries.end() && KeyOf()(*found) == key ? &*found : nullptr;
  }

  // Entries in ascending order of keys.
  const_iterator begin() const { return m_entries.begin(); }
  const_iterator end() const { return m_entries.end(); }

 private:
  std::vector<Entry> m_entries;
};

}  // namespace symforge_internal
