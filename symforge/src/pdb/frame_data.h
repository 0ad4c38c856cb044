// FrameDataMap: the frame data of 32-bit code, one record for a stretch of code, in the order of
// the STACK WIN lines.

#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "symforge/src/PDBHeaders.h"
#include "symforge/src/StreamReader.h"

namespace symforge_internal {

// An ordered map from (RVA, bytes of code), which its records hold, to records of type FPO_DATA or
// FPO_DATA_V2; the first record of a key stays. Filled first, then sealed, then read. 16 bytes a
// record: linkers write them in order, so that sealing is one look at them.
template <typename Record>
class FrameDataMap {
 public:
  using Entries = std::vector<DataPtr<Record>>;

  void reserve(size_t records) { m_entries.reserve(records); }
  void add(DataPtr<Record> record) { m_entries.push_back(std::move(record)); }

  // Brings the records into order and drops all but the first of each key.
  void seal() {
    if (!std::is_sorted(m_entries.begin(), m_entries.end(), before))
      std::stable_sort(m_entries.begin(), m_entries.end(), before);
    m_entries.erase(std::unique(m_entries.begin(), m_entries.end(), sameKey), m_entries.end());
  }

  // The record of exactly this stretch of code, or null.
  const Record* find(uint32_t rva, uint32_t size) const {
    const std::pair<uint32_t, uint32_t> key(rva, size);
    const auto found = std::lower_bound(
        m_entries.begin(), m_entries.end(), key,
        [](const auto& entry, const auto& wanted) { return keyOf(entry) < wanted; });
    return found != m_entries.end() && keyOf(*found) == key ? found->data : nullptr;
  }

  typename Entries::const_iterator begin() const { return m_entries.begin(); }
  typename Entries::const_iterator end() const { return m_entries.end(); }

 private:
  static std::pair<uint32_t, uint32_t> keyOf(const DataPtr<Record>& entry) {
    return {entry->ulOffStart, entry->cbProcSize};
  }
  static bool before(const DataPtr<Record>& a, const DataPtr<Record>& b) {
    return keyOf(a) < keyOf(b);
  }
  static bool sameKey(const DataPtr<Record>& a, const DataPtr<Record>& b) {
    return keyOf(a) == keyOf(b);
  }

  Entries m_entries;
};

}  // namespace symforge_internal
