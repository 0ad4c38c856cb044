// The exceptions that end the conversion of a PDB or a PE.

#pragma once

#include <stdexcept>
#include <string>
#include <utility>

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

// A sound file of a kind that is not converted. what() is the message of default mode; advice()
// says what the file is and what to do, in one line.
class pdb_refusal : public pdb_exception {
 public:
  pdb_refusal(const char* message, std::string advice)
      : pdb_exception(message), m_advice(std::move(advice)) {}

  const std::string& advice() const { return m_advice; }

 private:
  std::string m_advice;
};

}  // namespace symforge_internal
