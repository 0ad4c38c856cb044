// OpenAddressingIndex: a hash table from 32-bit keys to positions in a vector of the caller. One
// allocation, 8 bytes per slot, load factor at most 2/3.
//
// Keys come from untrusted files. The hash function differs between processes, so that no file can
// make all of its keys collide.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace symforge_internal {

// A random odd number that is constant within a process.
uint64_t hash_multiplier();

class OpenAddressingIndex {
 public:
  // Returns the position stored under `key` plus 1; 0 when there is none.
  uint32_t find(uint32_t key) const {
    return slots_.empty() ? 0 : slots_[slot_of(slots_, key)].place;
  }

  // Loads the place where find() begins to search into the processor's cache.
  void prefetch(uint32_t key) const {
    if (!slots_.empty()) __builtin_prefetch(&slots_[first_slot(slots_, key)]);
  }

  // Returns the value under `key`: the position plus 1, or 0 in a new entry. The caller must set a
  // new entry before the next call. The reference is valid until then.
  uint32_t& operator[](uint32_t key) {
    if ((used_ + 1) * 3 > slots_.size() * 2) grow();
    Slot& slot = slots_[slot_of(slots_, key)];
    if (slot.place == 0) {
      slot.key = key;
      ++used_;
    }
    return slot.place;
  }

 private:
  struct Slot {
    uint32_t key = 0;
    uint32_t place = 0;
  };

  size_t first_slot(const std::vector<Slot>& slots, uint32_t key) const {
    return (key * multiplier_ >> 32) & (slots.size() - 1);
  }

  // The slot that contains `key`, or the free slot for it.
  size_t slot_of(const std::vector<Slot>& slots, uint32_t key) const {
    const size_t mask = slots.size() - 1;
    size_t at = first_slot(slots, key);
    while (slots[at].place != 0 && slots[at].key != key) at = (at + 1) & mask;
    return at;
  }

  void grow() {
    std::vector<Slot> larger(slots_.empty() ? 64 : slots_.size() * 2);
    for (const Slot& slot : slots_) {
      if (slot.place != 0) larger[slot_of(larger, slot.key)] = slot;
    }
    slots_.swap(larger);
  }

  std::vector<Slot> slots_;  // size is a power of two
  size_t used_ = 0;
  uint64_t multiplier_ = hash_multiplier();
};

}  // namespace symforge_internal
