// OriginNames: the names of INLINE_ORIGIN lines by number. The first name of a number is kept.
//
// Symbol writers number origins from 0 on, and each INLINE line looks one up, so names with small
// numbers are in an array. Its size is bounded by the number of lines, whatever their numbers are.

#pragma once

#include <cstddef>
#include <vector>

#include "base/block_map.h"

namespace google_breakpad {

class OriginNames {
 public:
  // Null if there is none.
  const char* find(int number) const {
    const auto index = static_cast<size_t>(number);
    if (number >= 0 && index < first_.size() && first_[index] != nullptr) return first_[index];
    const auto other = others_.find(number);
    return other == others_.end() ? nullptr : other.value();
  }

  // Does nothing if the number has a name. `name` must not be null.
  void insert(int number, const char* name) {
    if (find(number) != nullptr) return;
    ++count_;
    const auto index = static_cast<size_t>(number);
    if (number < 0 || index > 2 * count_ + 64) {
      others_.insert(number, name);
      return;
    }
    if (index >= first_.size()) first_.resize(index + 1);
    first_[index] = name;
  }

 private:
  std::vector<const char*> first_;  // null where there is none, or where it is in others_
  symforge_internal::BlockMap<int, const char*> others_;
  size_t count_ = 0;
};

}  // namespace google_breakpad
