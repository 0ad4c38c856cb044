// Generated inputs for benchmarks: a PDB of any size, and an image that belongs to it, with the mix
// of records that PDBs of optimised C++ code have. The same arguments give the same bytes.
//
// What is in them, by bytes of the PDB: over half module streams (procedures with locals, nested
// inline sites, lines, file checksums, inlinee tables), a third types and ids, the rest symbol
// records, names and module records. A MB holds about 500 functions, 8000 lines and 1300 inline
// sites, which is on the dense side: the text that it is converted to is nearly half its size. One
// module stream in eight is not in one piece. The image has a function entry for each procedure.

#pragma once

#include <cstdint>
#include <string>

struct GeneratedPdb {
  std::string pdb;
  std::string image;
};

// `size` is the approximate size of the PDB in bytes, from about 100 KB to about 1 GB.
GeneratedPdb generate_pdb(uint64_t size);
