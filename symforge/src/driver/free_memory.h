// How much memory is left.

#pragma once

#include <cstdint>
#include <string_view>

namespace symforge_internal {

// The bytes that processes can still get without swapping: those of the machine, or those that are
// left of the limit of this process's control group (version 2), whichever is less. UINT64_MAX when
// the system does not tell.
uint64_t free_memory();

// Reads a size: a decimal number of bytes, or with a suffix K, M, G or T (in any case) of powers of
// 1024. False for another text.
bool parse_size(std::string_view text, uint64_t& size);

}  // namespace symforge_internal
