// AddressIndex: finds positions in a sorted table of a SYMB block with few cache misses.
//
// A binary search in a table of a million records reads twenty cache lines, of which about ten are
// in no cache. The index holds the addresses of some records in a tree of nodes of 16 keys, which
// are one cache line each. It has at most about 32,768 keys, so that it stays in a core's second
// cache while many random lookups are made: of a million records every 32nd. The position between
// two keys is estimated by interpolation, and the records around it are prefetched.
//
// A search by the index ends in the same state as a binary search in the same table. It is only
// made for tables for which that is true: their addresses ascend, and ranges are disjoint.

#pragma once

#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>

#include "processor/symb_search.h"

namespace google_breakpad {

class AddressIndex {
 public:
  static constexpr size_t kNodeKeys = 16;

  // Indexes the table of a search, which covers the whole table. Returns false, and changes
  // nothing, if the table is empty, is not in order or has more than 2^32 - 2 records. Reads all of
  // it. Takes memory of about a byte for each record, at most about 140 KB for the first two
  // million records. Throws std::bad_alloc.
  template <typename Step>
  bool build(const SymbSearch& whole) {
    if (whole.hi == 0 || whole.hi >= UINT32_MAX || !Step::is_in_order(whole)) return false;
    allocate(whole.hi);
    for (uint64_t key = 0; key < level_sizes_[0]; ++key) {
      keys_[key] = biased(Step::start(whole, key << records_shift_));
    }
    fill_upper_levels();
    return true;
  }
  bool is_built() const { return keys_ != nullptr; }

  // Runs a search over the whole table.
  template <typename Step>
  void search(SymbSearch& search) const {
    const uint64_t guess = guess_of<Step>(search, lowest_key<Step>(search));
    prefetch_around<Step>(search, guess);
    finish<Step>(search, guess);
  }
  // Prefetches the records at which a search would end.
  template <typename Step>
  [[gnu::always_inline]] void prefetch(const SymbSearch& search) const {
    if (is_built()) {
      prefetch_around<Step>(search, guess_of<Step>(search, lowest_key<Step>(search)));
    }
  }

  // Runs several searches over the whole table together, so that all wait for memory at once:
  // begin_together() prefetches what end_together() reads. The time between should be used.
  template <typename Step, size_t kMost>
  void begin_together(std::span<SymbSearch> searches) const {
    std::array<uint32_t, kMost> nodes{};
    for (size_t level = levels_; level-- > 0;) {
      for (size_t i = 0; i < searches.size(); ++i) {
        nodes[i] = child(level, nodes[i], key_of<Step>(searches[i]));
        if (level > 0) prefetch_node(level - 1, nodes[i]);
      }
    }
    for (size_t i = 0; i < searches.size(); ++i) {
      searches[i].lo = guess_of<Step>(searches[i], nodes[i]);
      prefetch_around<Step>(searches[i], searches[i].lo);
    }
  }
  template <typename Step>
  void end_together(std::span<SymbSearch> searches) const {
    for (SymbSearch& search : searches) finish_branchless<Step>(search, search.lo);
  }

 private:
  using Key = int32_t;  // an address with its highest bit flipped: SSE2 compares signed numbers
  static constexpr size_t kMaxLevels = 8;
  // Records that are compared around an expected position.
  static constexpr uint64_t kBefore = 1, kCompared = 4;
  static constexpr size_t kNodeBytes = kNodeKeys * sizeof(Key);

  struct Release {
    void operator()(Key* keys) const { ::operator delete (keys, std::align_val_t{kNodeBytes}); }
  };

  static Key biased(uint32_t address) { return static_cast<Key>(address ^ 0x80000000); }
  template <typename Step>
  static Key key_of(const SymbSearch& search) {
    return biased(Step::low_key(search.key));
  }

  void allocate(uint64_t records);
  void fill_upper_levels();

  // The number of keys of a node, which ascend, at or below `key`.
  static uint32_t count_at_most(const Key* node, Key key) {
    const auto above = [node, all = _mm_set1_epi32(key)](size_t i) {
      return _mm_cmpgt_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(node) + i), all);
    };
    const __m128i low = _mm_packs_epi32(above(0), above(1));
    const __m128i high = _mm_packs_epi32(above(2), above(3));
    const int mask = _mm_movemask_epi8(_mm_packs_epi16(low, high));
    return static_cast<uint32_t>(std::countr_zero(static_cast<unsigned>(mask) | 0x10000u));
  }
  // The node of the next lower level (or the key, on the lowest level) that leads to the last
  // record at or below `key`; the first one if there is none.
  uint32_t child(size_t level, uint32_t node, Key key) const {
    const uint32_t count = count_at_most(&keys_[level_starts_[level] + node * kNodeKeys], key);
    const uint32_t found = node * kNodeKeys + count - (count > 0 ? 1 : 0);
    return found < level_sizes_[level] ? found : level_sizes_[level] - 1;
  }
  // The last key at or below that of a search; the first one if there is none.
  template <typename Step>
  uint32_t lowest_key(const SymbSearch& search) const {
    const Key key = key_of<Step>(search);
    uint32_t node = 0;
    for (size_t level = levels_; level-- > 0;) node = child(level, node, key);
    return node;
  }
  void prefetch_node(size_t level, uint32_t node) const {
    __builtin_prefetch(&keys_[level_starts_[level] + node * kNodeKeys]);
  }
  // Where the result of a search is expected, given the last key at or below.
  template <typename Step>
  uint64_t guess_of(const SymbSearch& search, uint32_t key) const {
    const uint64_t first = uint64_t{key} << records_shift_;
    if (key + 1 >= level_sizes_[0]) return first;
    const auto distance = [this, key](Key to) {
      return static_cast<uint32_t>(to) - static_cast<uint32_t>(keys_[key]);
    };
    const uint32_t span = distance(keys_[key + 1]);
    const uint32_t part = std::min(distance(key_of<Step>(search)), span - 1);  // if below the first
    // Floating point: a division of integers takes longer than the rest of the search.
    const float records = static_cast<float>(uint64_t{1} << records_shift_);
    const float offset = static_cast<float>(part) / static_cast<float>(span) * records;
    return first + static_cast<uint64_t>(offset);
  }
  // The records with which finish_branchless() compares.
  template <typename Step>
  [[gnu::always_inline]] static void prefetch_around(const SymbSearch& search, uint64_t position) {
    constexpr ptrdiff_t kLine = 64, kStride = Step::kStride;
    constexpr ptrdiff_t kFirst = -static_cast<ptrdiff_t>(kBefore) * kStride + Step::kVisited;
    constexpr ptrdiff_t kLast = kFirst + (kCompared - 1) * kStride + sizeof(uint32_t) - 1;
    const char* at = search.records + position * Step::kStride;
    for (ptrdiff_t offset = kFirst; offset < kLast; offset += kLine) {
      __builtin_prefetch(at + offset);
    }
    __builtin_prefetch(at + kLast);
  }
  // Ends a search whose result is expected at `position`.
  template <typename Step>
  static void finish(SymbSearch& search, uint64_t position) {
    const uint32_t address = Step::low_key(search.key);
    uint64_t end = position;  // no record before it starts above the address
    while (end > 0 && Step::start(search, end - 1) > address) --end;
    while (end < search.hi && Step::start(search, end) <= address) ++end;
    Step::finish(search, end);
  }
  // The same for one of several searches. The records around the position are compared without a
  // branch on each, because mistaken predictions would take longer than everything else.
  template <typename Step>
  [[gnu::always_inline]] static void finish_branchless(SymbSearch& search, uint64_t position) {
    if (position < kBefore || position - kBefore + kCompared > search.hi) {
      return finish<Step>(search, position);
    }
    const uint32_t address = Step::low_key(search.key);
    uint64_t at_or_below = 0;
    for (uint64_t i = 0; i < kCompared; ++i) {
      at_or_below += Step::start(search, position - kBefore + i) <= address ? 1 : 0;
    }
    const uint64_t end = position - kBefore + at_or_below;
    if (at_or_below == 0 || at_or_below == kCompared) return finish<Step>(search, end);
    Step::finish(search, end);
  }

  std::unique_ptr<Key[], Release> keys_;  // the lowest level first
  unsigned records_shift_ = 0;            // a key for each 2^n records
  size_t levels_ = 0;
  // In keys. Each level begins at a multiple of a node; the rest of its last node is the highest
  // key.
  std::array<uint32_t, kMaxLevels> level_sizes_{};
  std::array<uint64_t, kMaxLevels> level_starts_{};
};

}  // namespace google_breakpad
