// A list of inputs in a file.

#pragma once

#include <string>
#include <vector>

namespace symforge_internal {

// The path that names standard input.
inline constexpr char kStandardInput[] = "-";

// Appends the paths in the file `list`, or in standard input, to `paths`. They are separated by NUL
// bytes if there is one in the file, else by line feeds; empty ones are left out. False, and
// reported, when the list cannot be read or is too long.
bool read_input_list(const char* list, std::vector<std::string>& paths);

}  // namespace symforge_internal
