// What one lookup may cost, whatever the symbols come from. Loads of SYMB data refuse what is
// beyond these limits (common/symb_safety.h); lookups keep to them by themselves where a load does
// not refuse: in text modules, and in blocks that nobody has checked.
//
// With these, a lookup takes less than 10 ms and 16 MiB. The largest values in the symbols of real
// and generated programs of up to 500 MB of debug information are given beside each limit.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace symforge_internal {

// Bytes of a name, path, program or rule text (1,910). Lookups return this much of longer ones.
constexpr size_t kMaxStringBytes = size_t{1} << 20;
inline std::string_view limited_string(const char* string) {
  return {string, strnlen(string, kMaxStringBytes)};
}

// Strings up to this size are counted as having it, so that a check need not read them.
constexpr size_t kCommonStringBytes = 4096;

// Bytes of the names and paths that the inline frames of one address hold together; for common
// strings that is a nesting depth of 1,024 (4).
constexpr uint64_t kMaxInlinePathBytes = uint64_t{8} << 20;

// Inline sites of one function (81): in the order of nesting, and in any other.
constexpr uint32_t kMaxInlineSites = uint32_t{1} << 18;
constexpr uint32_t kMaxUnorderedInlineSites = uint32_t{1} << 14;

// Depth to which STACK WIN ranges around one address nest (7).
constexpr size_t kMaxFrameInfoDepth = 1024;

// STACK CFI texts that apply at one address: their bytes (203), and more for each text and each
// rule in it. A range of code may have about 5,000 lines of one rule each (1).
constexpr uint64_t kMaxRuleCost = uint64_t{1} << 19;
constexpr uint64_t kRuleTextCost = 16;
constexpr uint64_t kRuleCost = 48;

}  // namespace symforge_internal
