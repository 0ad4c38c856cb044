// AddressMap: single addresses with nearest-below lookup.
//
// Inserts and lookups are logarithmic, storing in ascending order is constant. Not safe for
// concurrent changes; const operations are safe together when copying an EntryType is.

#pragma once

#include <cassert>

#include "base/block_map.h"
#include "processor/logging.h"

namespace google_breakpad {

using symforge_internal::BlockMap;

template <typename AddressType, typename EntryType>
class AddressMap {
 public:
  // Ordered by address; iteration gives (address, entry).
  using AddressToEntryMap = BlockMap<AddressType, EntryType>;

  // False, with a line in the log (see LogLimit), if `address` is taken: the first entry stays.
  bool Store(const AddressType& address, const EntryType& entry) {
    if (map_.insert(address, entry)) return true;
    if (log_limit_.Admits()) {
      SYMFORGE_LOG(INFO) << "Store failed, address " << HexString(address) << " is already present";
    }
    return false;
  }

  // The entry at the highest stored address at or below `address`, and that address unless
  // `entry_address` is null. False if there is none. `entry` must not be null.
  bool Retrieve(const AddressType& address, EntryType* entry, AddressType* entry_address) const {
    if (!entry) {
      SYMFORGE_LOG(ERROR) << "AddressMap::Retrieve requires |entry|";
      assert(entry);
    }
    auto it = map_.upper_bound(address);
    if (it == map_.begin()) return false;
    --it;
    *entry = it.value();
    if (entry_address) *entry_address = it.key();
    return true;
  }

  void Clear() { map_.clear(); }
  const AddressToEntryMap& Map() const { return map_; }

 private:
  AddressToEntryMap map_;
  LogLimit log_limit_;
};

}  // namespace google_breakpad
