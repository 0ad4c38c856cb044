// What a run was asked to do: the options of the command line that conversions depend on.

#pragma once

namespace symforge_internal {

// One input, or a pair. Paths are borrowed. At least one of them is not null.
struct ConversionInput {
  const char* pdb = nullptr;  // a PDB, a text symbol file or a SYMB image: its content decides
  const char* exe = nullptr;  // the PE image of the PDB; with a null `pdb` it is converted alone

  // The path that messages name.
  const char* name() const { return pdb != nullptr ? pdb : exe; }
};

// Whether inline sites are converted is not here but in the global flag `do_inline`.
struct ConversionOptions {
  bool standard = false;       // the published text format with complete content, strict statuses
  bool binary = false;         // the result is a SYMB image instead of text
  bool sync = false;           // results reach the disk before they replace older ones
  bool sandbox = false;        // the process gives up, for good, what the conversion does not need
  const char* tree = nullptr;  // root of the symbol tree, borrowed; null: standard output
};

}  // namespace symforge_internal
