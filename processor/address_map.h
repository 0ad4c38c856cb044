// AddressMap: entries at single addresses, with nearest-below lookup.
//
// Inserting in ascending order takes constant time; other inserts and lookups are logarithmic.
// Threads: const operations may run concurrently if EntryType can be copied concurrently; changes
// need exclusive access.

#pragma once

#include <cassert>

#include "base/block_map.h"
#include "processor/logging.h"

namespace google_breakpad {

using symforge_internal::BlockMap;

template <typename AddressType, typename EntryType>
class AddressMap {
 public:
  // Ordered by address. Iteration yields (address, entry).
  using AddressToEntryMap = BlockMap<AddressType, EntryType>;

  // Returns false if `address` exists already; the first entry is kept. Logs a line (see LogLimit).
  bool Store(const AddressType& address, const EntryType& entry) {
    if (map_.insert(address, entry)) return true;
    if (log_limit_.Admits()) {
      SYMFORGE_LOG(INFO) << "Store failed, address " << HexString(address) << " is already present";
    }
    return false;
  }

  // Copies the entry at the highest stored address that is not above `address`. `entry` must not be
  // null; `entry_address` may be. Returns false if there is none.
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
