// The exceptions that end the conversion of a PDB or a PE.

#pragma once

#include <stdexcept>

namespace symforge_internal {

// A file that cannot be converted. The text is what the user is shown.
class pdb_exception : public std::runtime_error {
 public:
  explicit pdb_exception(const char* message) : std::runtime_error(message) {}
};

// A read exceeded a stream's pages. While a module's lines and inline data are read, only that
// module's data is lost; everywhere else this is a pdb_exception like any other.
class pdb_recoverable_exception : public pdb_exception {
 public:
  explicit pdb_recoverable_exception(const char* message) : pdb_exception(message) {}
};

}  // namespace symforge_internal
