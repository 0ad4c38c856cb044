// Addresses to look up in a fuzzed symbol file.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace fuzzing {

// Collects hexadecimal numbers at the starts of lines and after their keywords, the sums of these
// and the number that follows, and the neighbours of all of them.
std::vector<uint64_t> addresses_in(std::string_view text);

// The first words after the header of a SYMB block, with the bounds of the address space: at most
// `most`.
std::vector<uint64_t> words_in(std::string_view block, size_t most);

}  // namespace fuzzing
