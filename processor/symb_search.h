// Binary searches in the tables of a SYMB block.
//
// The sequence of records that a search visits is fixed, because it determines the result in an
// unsorted table, on which hosts may rely: the middle of [lo, hi) is (lo + hi) / 2, and the search
// ends at the first record that matches. Prefetching is not restricted.
//
// A step has no branch on the addresses, which would be unpredictable. Several searches in one
// table or in many can take their steps in turn, so that all of them wait for memory at once.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

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
  // After a search by AddressStep, the number of records up to the last one at or below the key,
  // and of those below the key.
  uint64_t end_at_or_below() const { return found == kNone ? lo : found + 1; }
  uint64_t end_below() const { return lo; }
  // Continues below or above the record `mid`, or ends there.
  void step(uint64_t mid, bool below, bool match) {
    found = match ? mid : found;
    hi = below || match ? mid : hi;
    lo = below || match ? lo : mid + 1;
    lo = match ? mid : lo;
  }
};

// What a search compares: a record type and a step. `kVisited` is the offset of what a step loads.

// The record whose range contains the low 32 bits of the key. The range is a 32-bit first address,
// at kStart, and the size that follows it.
template <typename Record, size_t kStart>
struct RangeStep {
  static constexpr size_t kStride = sizeof(Record);
  static constexpr size_t kVisited = kStart;

  // The first address of a record.
  static uint32_t start(const SymbSearch& search, uint64_t position) {
    return symforge_internal::symb_load<uint32_t>(search.records + position * kStride + kStart);
  }
  static void step(SymbSearch& search) {
    using symforge_internal::symb_load;
    const uint64_t mid = search.middle();
    const char* record = search.records + mid * kStride;
    const auto address = static_cast<uint32_t>(search.key);
    const auto start = symb_load<uint32_t>(record + kStart);
    const auto size = symb_load<uint32_t>(record + kStart + sizeof(uint32_t));
    const bool below = address < start;
    search.step(mid, below, !below && address < start + size);
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
  static void step(SymbSearch& search) {
    const uint64_t mid = search.middle();
    const uint64_t address = start(search, mid);
    search.step(mid, search.key < address, search.key == address);
  }
};

// The file whose index is the key, a sign-extended 32-bit number.
struct FileStep {
  static constexpr size_t kStride = sizeof(symb_file);
  static constexpr size_t kVisited = offsetof(symb_file, index);

  static void step(SymbSearch& search) {
    const uint64_t mid = search.middle();
    const int64_t index =
        symforge_internal::symb_load<int32_t>(search.records + mid * kStride + kVisited);
    const auto key = static_cast<int64_t>(search.key);
    search.step(mid, key < index, key == index);
  }
};

// Takes steps of all searches in turn until all are over.
template <typename Step>
void search_together(std::span<SymbSearch> searches) {
  for (const SymbSearch& search : searches) {
    if (!search.is_over()) {
      __builtin_prefetch(search.records + search.middle() * Step::kStride + Step::kVisited);
    }
  }
  for (bool open = true; open;) {
    open = false;
    for (SymbSearch& search : searches) {
      if (search.is_over()) continue;
      Step::step(search);
      open = true;
      __builtin_prefetch(search.records + search.middle() * Step::kStride + Step::kVisited);
    }
  }
}

template <typename Step>
void search_alone(SymbSearch& search) {
  while (!search.is_over()) Step::step(search);
}

// Prefetches all records that a search visits on its path to the record `guess`. Must be inlined:
// g++ considers a function that only prefetches to have no effect and removes the call.
template <typename Step>
[[gnu::always_inline]] inline void prefetch_path(SymbSearch search, uint64_t guess) {
  __builtin_prefetch(search.records + (guess + 1) * Step::kStride - 1);  // the record's end
  while (!search.is_over()) {
    const uint64_t mid = search.middle();
    __builtin_prefetch(search.records + mid * Step::kStride + Step::kVisited);
    search.step(mid, guess < mid, guess == mid);
  }
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
  const uint64_t count = search.hi;
  for (const uint64_t part : kParts) {
    if (count <= part) continue;
    while (search.lo + part < search.hi) Step::step(search);
    if (search.is_over()) return;
    // The records around the part have been visited.
    const uint32_t below = search.lo == 0 ? 0 : Step::start(search, search.lo - 1);
    const uint32_t above = search.hi == count ? UINT32_MAX : Step::start(search, search.hi);
    const auto address = static_cast<uint32_t>(search.key);
    const uint64_t span = uint64_t{above} - below + 1;
    const uint64_t guess =
        search.lo + (search.hi - search.lo) * uint64_t{address - below} / (span | 1);
    prefetch_path<Step>(search, guess);
  }
  search_alone<Step>(search);
}

}  // namespace google_breakpad
