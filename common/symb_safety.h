// Whether lookups may be asked of a SYMB block that comes from outside.

#pragma once

#include <cstdint>

namespace symforge_internal {

// True if every lookup on the block reads nothing outside of its `size` bytes and keeps to the
// limits of common/lookup_limits.h. Less is demanded than by symb_validate(): any version, any
// alignment, tables in any order and place; what no lookup reads is not looked at. The block is
// only read.
//
// Time is linear in the number of records, but n log n for functions with a thousand and more
// inline sites that are out of order. Line records are not visited, and most strings are not read.
// Memory is constant, but for such functions and for strings of more than kCommonStringBytes.
bool symb_check_safety(const char* block, uint64_t size);

}  // namespace symforge_internal
