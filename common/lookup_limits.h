// The maximal cost of one lookup, wherever the symbols come from. Loading rejects SYMB data beyond
// these limits (common/symb_safety.h). Lookups enforce them where loading does not: in text modules
// and in blocks that were not checked.
//
// Within them, a lookup takes less than 10 ms and 16 MiB. The number in parentheses is the largest
// value in the symbols of real and generated programs of up to 500 MB of debug information.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace symforge_internal {

// Bytes of a name, path, program or rule text (1,910). Lookups truncate longer ones.
constexpr size_t kMaxStringBytes = size_t{1} << 20;
inline std::string_view limited_string(const char* string) {
  return {string, strnlen(string, kMaxStringBytes)};
}

// Shorter strings count as having this size, so that the check need not read them.
constexpr size_t kCommonStringBytes = 4096;

// Sum of the bytes of names and paths of the inline frames at one address. For common strings this
// allows a nesting depth of 1,024 (4).
constexpr uint64_t kMaxInlinePathBytes = uint64_t{8} << 20;

// Inline sites of one function (81): in pre-order, and in any other order.
constexpr uint32_t kMaxInlineSites = uint32_t{1} << 18;
constexpr uint32_t kMaxUnorderedInlineSites = uint32_t{1} << 14;

// Nesting depth of STACK WIN ranges at one address (7).
constexpr size_t kMaxFrameInfoDepth = 1024;

// Cost of the STACK CFI texts that apply at one address: their bytes (203), plus a cost per text
// and per rule. Allows about 5,000 lines of one rule each in a range (1).
constexpr uint64_t kMaxRuleCost = uint64_t{1} << 19;
constexpr uint64_t kRuleTextCost = 16;
constexpr uint64_t kRuleCost = 48;

}  // namespace symforge_internal
