// What to ask a resolver about.

#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace fuzzing {

// Addresses worth asking about: the hexadecimal numbers at the starts of lines and behind their
// keywords, with their sums with the number that follows, and the neighbours of all these.
std::vector<uint64_t> addresses_in(std::string_view text);

}  // namespace fuzzing
