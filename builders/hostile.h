// Inputs crafted to cost far more than their size: one for each kind of attack that a limit
// prevents, in any size. They are well-formed otherwise.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace builders {

struct HostileFile {
  std::string name;  // including the extension pdb, symb, sym or exe
  std::string bytes;
};

// Returns one file of each kind, of about `size` bytes each. `size` is at least 32 KiB.
std::vector<HostileFile> hostile_files(size_t size);
// As above, those that cost most with --standard.
std::vector<HostileFile> hostile_standard_files(size_t size);

}  // namespace builders
