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

  void reserve(size_t entries) { entries_.reserve(entries); }
  void add(Entry entry) { entries_.push_back(std::move(entry)); }

  // Sorts the entries by key and keeps the first of each key.
  void seal() {
    const auto before = [](const Entry& a, const Entry& b) { return KeyOf()(a) < KeyOf()(b); };
    const auto same = [](const Entry& a, const Entry& b) { return KeyOf()(a) == KeyOf()(b); };
    if (!std::is_sorted(entries_.begin(), entries_.end(), before)) {
      std::stable_sort(entries_.begin(), entries_.end(), before);
    }
    entries_.erase(std::unique(entries_.begin(), entries_.end(), same), entries_.end());
  }
  // Frees reserved memory that is not used.
  void shrink_to_fit() { entries_.shrink_to_fit(); }

  // Returns the entry with exactly this key, or null. The map must be sealed.
  template <typename Key>
  const Entry* find(const Key& key) const {
    const auto found = std::lower_bound(
        entries_.begin(), entries_.end(), key,
        [](const Entry& entry, const Key& wanted) { return KeyOf()(entry) < wanted; });
    return found != entries_.end() && KeyOf()(*found) == key ? &*found : nullptr;
  }

  // Entries in ascending order of keys.
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

 private:
  std::vector<Entry> entries_;
};

}  // namespace symforge_internal
