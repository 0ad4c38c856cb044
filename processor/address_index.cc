#include "processor/address_index.h"

#include <algorithm>

namespace google_breakpad {

void AddressIndex::allocate(uint64_t records) {
  constexpr uint64_t kUsualKeys = 32768;
  constexpr unsigned kMinShift = 2, kMaxShift = 6;
  records_shift_ = kMinShift;
  while (records_shift_ < kMaxShift && records >> records_shift_ > kUsualKeys) ++records_shift_;
  uint64_t size = ((records - 1) >> records_shift_) + 1;
  uint64_t total = 0;
  levels_ = 0;
  while (true) {
    level_sizes_[levels_] = static_cast<uint32_t>(size);
    level_starts_[levels_++] = total;
    const uint64_t nodes = (size + kNodeKeys - 1) / kNodeKeys;
    total += nodes * kNodeKeys;
    if (nodes == 1) break;
    size = nodes;
  }
  keys_.reset(
      static_cast<Key*>(::operator new (total * sizeof(Key), std::align_val_t{kNodeBytes})));
  std::fill_n(keys_.get(), total, biased(UINT32_MAX));
}

// A key of an upper level is the first key of the node below it.
void AddressIndex::fill_upper_levels() {
  for (size_t level = 1; level < levels_; ++level) {
    const Key* below = &keys_[level_starts_[level - 1]];
    Key* keys = &keys_[level_starts_[level]];
    for (size_t i = 0; i < level_sizes_[level]; ++i) keys[i] = below[i * kNodeKeys];
  }
}

}  // namespace google_breakpad
