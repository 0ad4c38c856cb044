// InlineOrigins: the INLINE_ORIGIN lines of a symbol file: the names of inlined functions, each one
// once, numbered in the order of the first call.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/open_addressing_index.h"
#include "base/text_buffer.h"
#include "base/text_hash.h"
#include "symforge/src/standard/function_names.h"

namespace symforge_internal {

class InlineOrigins {
 public:
  static constexpr uint32_t kUnnamed = 0xFFFFFFFF;

  explicit InlineOrigins(FunctionNames& names) : m_names(names) {}

  // The origin of an inlined function by its item identifier; kUnnamed when it has no name. Throws
  // what FunctionNames throws.
  uint32_t find(uint32_t inlinee);

  // The number to print for an origin that find() returned.
  uint32_t number(uint32_t origin);

  // For several readers with one numbering: notes that the number of an origin will be printed;
  // takeNumbers() gives all such origins the numbers that `shared` has for their names.
  void need(uint32_t origin) {
    if (m_origins[origin].number == kUnnamed) noteMissing(origin);
  }
  void takeNumbers(InlineOrigins& shared);

  size_t count() const { return m_used.size(); }

  // Appends the INLINE_ORIGIN lines.
  void print(TextBuffer& out) const;

 private:
  static constexpr uint32_t kMissing = 0xFFFFFFFE;

  uint32_t add(std::string_view name);
  void noteMissing(uint32_t origin);
  std::string_view text(uint32_t origin) const;

  FunctionNames& m_names;
  OpenAddressingIndex m_byInlinee;  // origin + 1, or kUnnamed
  const TextHash m_hash;
  OpenAddressingIndex m_byHash;  // first origin of a hash + 1
  std::string m_name;
  std::string m_printableName;
  TextBuffer m_texts;  // of all origins, one after the other
  struct Origin {
    size_t end = 0;  // of its text in m_texts
    uint32_t nextOfHash = kUnnamed;
    uint32_t number = kUnnamed;
  };
  std::vector<Origin> m_origins;
  std::vector<uint32_t> m_used;     // origins by number
  std::vector<uint32_t> m_missing;  // origins that wait for takeNumbers()
};

}  // namespace symforge_internal
