// FileMod: a host's hook for the names of source files.

#pragma once

#include <cstddef>
#include <functional>

namespace symforge_internal {

// Replaces a source file's name in FILE lines: receives the name and its length in bytes (it need
// not be terminated), and returns a NUL-terminated one that is valid until the next call.
using FileMod = std::function<const char*(const char* name, size_t length)>;

}  // namespace symforge_internal
