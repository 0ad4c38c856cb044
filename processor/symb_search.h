// Binary searches in the tables of a SYMB block.
//
// The sequence of records that a search visits is fixed, because it determines the result in an
// unsorted table, on which hosts may rely: the middle of [lo, hi) is (lo + hi) / 2, and the search
// ends at the first record that matches. Prefetching is not restricted.
//
// Tables that are known to be in order can be searched by an AddressIndex instead.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "common/symb.h"
#include "common/symb_block.h"

namespace google_breakpad {

// The state of a search for `key` among the records [lo, hi) of a table.
struct SymbSearch {
  static constexpr uint64_t kNone = UINT64_MAX;

  const char* records = nullptr;
  uint64_t lo = 0;
  uint64_t hi = 0;
  uint64_t key = 0;
  uint64_t found = kNone;  // the record at which the search ended

  bool has_found() const { return found != kNone; }
  bool is_over() const { return lo >= hi; }
  uint64_t middle() const { return (lo + hi) / 2; }
  void end_at(uint64_t position) { found = lo = hi = position; }
  // After a search by AddressStep, the number of records up to the last one at or below the key,
  // and of those below the key.
  uint64_t end_at_or_below() const { return found == kNone ? lo : found + 1; }
  uint64_t end_below() const { return lo; }
};

// How the key compares with the record in the middle.
struct SymbOrder {
  bool below;
  bool match;
};

// What a search compares: a record type, and functions on a search. `kVisited` is the offset of
// what compare() loads. finish() ends a search in a table in order, given the number of records
// that start at or below the key.

// The record whose range contains the low 32 bits of the key. The range is a 32-bit first address,
// at kStart, and the size that follows it.
template <typename Record, size_t kStart>
struct RangeStep {
  static constexpr size_t kStride = sizeof(Record);
  static constexpr size_t kVisited = kStart;

  static uint32_t start(const SymbSearch& search, uint64_t position) {
    return symforge_internal::symb_load<uint32_t>(search.records + position * kStride + kStart);
  }
  static uint32_t size(const SymbSearch& search, uint64_t position) {
    return symforge_internal::symb_load<uint32_t>(search.records + position * kStride + kStart +
                                                  sizeof(uint32_t));
  }
  static uint32_t low_key(uint64_t key) { return static_cast<uint32_t>(key); }
  static SymbOrder compare(const SymbSearch& search, uint64_t position) {
    const uint32_t address = low_key(search.key);
    const uint32_t first = start(search, position);
    const uint32_t end = first + size(search, position);
    const bool below = address < first;
    return {below, static_cast<bool>(static_cast<int>(!below) & static_cast<int>(address < end))};
  }
  // No range overlaps the next one or ends at or above 4 GiB.
  static bool is_in_order(const SymbSearch& whole) {
    uint64_t last_end = 0;
    for (uint64_t i = 0; i < whole.hi; ++i) {
      const uint64_t first = start(whole, i);
      if (first < last_end || (i > 0 && first == start(whole, i - 1))) return false;
      last_end = first + size(whole, i);
    }
    return last_end <= UINT32_MAX;
  }
  static void finish(SymbSearch& search, uint64_t at_or_below) {
    search.lo = search.hi = at_or_below;
    if (at_or_below == 0) return;
    const uint64_t last = at_or_below - 1;
    // Without a branch on whether the range contains the address, which is unpredictable.
    const uint64_t inside = low_key(search.key) - start(search, last) < size(search, last) ? 1 : 0;
    search.lo = search.hi = at_or_below - inside;
    search.found = last | (inside - 1);
  }
};

// The record with a 32-bit address, at kAddress, equal to the key. If there is none, the search
// ends with `lo` at the first record above it.
template <typename Record, size_t kAddress>
struct AddressStep {
  static constexpr size_t kStride = sizeof(Record);
  static constexpr size_t kVisited = kAddress;

  static uint32_t start(const SymbSearch& search, uint64_t position) {
    return symforge_internal::symb_load<uint32_t>(search.records + position * kStride + kAddress);
  }
  static uint32_t low_key(uint64_t key) {
    return static_cast<uint32_t>(std::min<uint64_t>(key, UINT32_MAX));
  }
  static SymbOrder compare(const SymbSearch& search, uint64_t position) {
    const uint64_t address = start(search, position);
    return {search.key < address, search.key == address};
  }
  static bool is_in_order(const SymbSearch& whole) {
    for (uint64_t i = 1; i < whole.hi; ++i) {
      if (start(whole, i) <= start(whole, i - 1)) return false;
    }
    return true;
  }
  static void finish(SymbSearch& search, uint64_t at_or_below) {
    search.lo = search.hi = at_or_below;
    if (at_or_below == 0) return;
    if (start(search, at_or_below - 1) == search.key) search.end_at(at_or_below - 1);
  }
};

// The file whose index is the key, a sign-extended 32-bit number.
struct FileStep {
  static constexpr size_t kStride = sizeof(symb_file);
  static constexpr size_t kVisited = offsetof(symb_file, index);

  static SymbOrder compare(const SymbSearch& search, uint64_t position) {
    const int64_t index =
        symforge_internal::symb_load<int32_t>(search.records + position * kStride + kVisited);
    const auto key = static_cast<int64_t>(search.key);
    return {key < index, key == index};
  }
};

// Takes one step. The branches are hard to predict, but let the processor load the next record
// before the comparison is known.
template <typename Step>
[[gnu::always_inline]] inline void take_step(SymbSearch& search) {
  const uint64_t mid = search.middle();
  const SymbOrder order = Step::compare(search, mid);
  if (order.below) {
    search.hi = mid;
  } else if (order.match) {
    search.end_at(mid);
  } else {
    search.lo = mid + 1;
  }
}

template <typename Step>
void search_alone(SymbSearch& search) {
  SymbSearch state = search;  // in registers
  while (!state.is_over()) take_step<Step>(state);
  search = state;
}

// At most kMost positions, chosen from others without a branch.
template <size_t kMost>
class SearchList {
 public:
  void clear() { count_ = 0; }
  void add_if(bool wanted, size_t position) {
    positions_[count_] = static_cast<uint32_t>(position);
    count_ += wanted ? 1 : 0;
  }
  // Keeps the positions for which `wanted` is true after it has worked on them.
  template <typename Wanted>
  void keep_if(Wanted wanted) {
    const size_t last = std::exchange(count_, 0);
    for (size_t i = 0; i < last; ++i) {
      const uint32_t position = positions_[i];
      add_if(wanted(position), position);
    }
  }
  size_t size() const { return count_; }
  uint32_t operator[](size_t i) const { return positions_[i]; }
  const uint32_t* begin() const { return positions_.data(); }
  const uint32_t* end() const { return positions_.data() + count_; }

 private:
  std::array<uint32_t, kMost + 1> positions_;  // one more: add_if() writes before it decides
  size_t count_ = 0;
};

// Takes steps of all searches in turn until all are over, so that all wait for memory at once.
// Without branches: there are other loads to go on with. Bit masks, because compilers turn
// conditional expressions into branches.
template <typename Step, size_t kMost>
void search_together(std::span<SymbSearch> searches) {
  const auto pick = [](uint64_t mask, uint64_t a, uint64_t b) { return b ^ ((a ^ b) & mask); };
  SearchList<kMost> open;
  for (uint32_t i = 0; i < searches.size(); ++i) open.add_if(!searches[i].is_over(), i);
  while (open.size() > 0) {
    open.keep_if([&](uint32_t i) {
      SymbSearch& search = searches[i];
      const uint64_t mid = search.middle();
      const SymbOrder order = Step::compare(search, mid);
      const uint64_t ends = -static_cast<uint64_t>(order.match);
      const uint64_t at_most = ends | -static_cast<uint64_t>(order.below);
      search.found = pick(ends, mid, search.found);
      search.hi = pick(at_most, mid, search.hi);
      search.lo = pick(ends, mid, pick(at_most, search.lo, mid + 1));
      __builtin_prefetch(search.records + search.middle() * Step::kStride + Step::kVisited);
      return !search.is_over();
    });
  }
}

// Prefetches all records that a search visits on its path to the record `guess`. Must be inlined:
// g++ considers a function that only prefetches to have no effect and removes the call.
template <typename Step>
[[gnu::always_inline]] inline void prefetch_path(SymbSearch search, uint64_t guess) {
  __builtin_prefetch(search.records + (guess + 1) * Step::kStride - 1);  // the record's end
  while (!search.is_over()) {
    const uint64_t mid = search.middle();
    __builtin_prefetch(search.records + mid * Step::kStride + Step::kVisited);
    const bool below = guess < mid;  // without a branch: it would be unpredictable
    if (guess == mid) return;
    search.hi = below ? mid : search.hi;
    search.lo = below ? search.lo : mid + 1;
  }
}

// Prefetches all records of a short table, and the first one that the search of any other visits.
template <typename Step>
[[gnu::always_inline]] inline void prefetch_start(const SymbSearch& search) {
  constexpr size_t kLine = 64, kShort = 4 * kLine;
  const size_t bytes = search.hi * Step::kStride;
  if (bytes > kShort) {
    __builtin_prefetch(search.records + search.middle() * Step::kStride);
    return;
  }
  for (size_t at = 0; at < bytes; at += kLine) __builtin_prefetch(search.records + at);
  __builtin_prefetch(search.records + bytes);
}

// Prefetches the first, middle and last record: all of a short table. Without the branches of
// prefetch_start(), which cost an array of lookups more than they save; a single one is slower with
// these.
template <typename Step>
[[gnu::always_inline]] inline void prefetch_ends(const SymbSearch& search) {
  const size_t bytes = search.hi * Step::kStride;
  __builtin_prefetch(search.records);
  __builtin_prefetch(search.records + bytes / 2);
  __builtin_prefetch(search.records + bytes);
}

// A search of one address.
//
// The first steps in a large table hit the cache, because all searches share them. Each later step
// would wait for memory. So the position of the result is then estimated by interpolation, and the
// records on the path to it are prefetched together. Sizes differ, so the estimate is repeated
// closer to the result. A wrong estimate costs little and does not affect the result.
template <typename Step>
void search_by_guess(SymbSearch& search) {
  constexpr uint64_t kParts[] = {4096, 128};
  SymbSearch state = search;  // in registers
  for (const uint64_t part : kParts) {
    if (search.hi <= part) continue;
    while (state.lo + part < state.hi) take_step<Step>(state);
    if (state.is_over()) break;
    // The records around the part have been visited.
    const uint32_t below = state.lo == 0 ? 0 : Step::start(state, state.lo - 1);
    const uint32_t above = state.hi == search.hi ? UINT32_MAX : Step::start(state, state.hi);
    const uint64_t span = uint64_t{above - below} + 1;
    const uint32_t distance = Step::low_key(state.key) - below;
    prefetch_path<Step>(state, state.lo + (state.hi - state.lo) * distance / span);
  }
  while (!state.is_over()) take_step<Step>(state);
  search = state;
}

}  // namespace google_breakpad
