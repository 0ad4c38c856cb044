// Checks that lookups are safe on a SYMB block from an untrusted source.

#pragma once

#include <cstdint>

namespace symforge_internal {

// Returns true if every lookup on the block reads only its `size` bytes and stays within the limits
// of common/lookup_limits.h. Requires less than symb_validate(): the version, alignment, order and
// position of tables are arbitrary, and data that lookups do not use are not checked. The block is
// only read.
//
// Takes linear time in the number of records, and n log n for functions with a thousand or more
// unordered inline sites. Does not read line records and most strings. Memory is constant except
// for such functions and for strings of more than kCommonStringBytes.
bool symb_check_safety(const char* block, uint64_t size);

}  // namespace symforge_internal
