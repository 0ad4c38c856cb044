// Inputs that try to cost far more than their size: the kinds of attack that limits answer, each in
// a size of choice. Well-formed but for what makes them hostile.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace builders {

struct HostileFile {
  std::string name;  // with the extension pdb, symb, sym or exe
  std::string bytes;
};

// One file of each kind, of about `size` bytes each. `size` is at least 32 KiB.
std::vector<HostileFile> hostile_files(size_t size);

}  // namespace builders
