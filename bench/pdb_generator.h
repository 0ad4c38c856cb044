// Generates inputs for benchmarks: a PDB of any size and its image, with the mix of records of PDBs
// of optimised C++ code. Equal arguments yield equal bytes.
//
// By bytes of the PDB, over half are module streams (procedures with locals, nested inline sites,
// lines, file checksums, inlinee tables), a third types and ids, the rest symbol records, names and
// module records. One MB has about 500 functions, 8000 lines and 1300 inline sites, which is denser
// than usual: the text is nearly half the size of the PDB. One module stream in eight is not
// contiguous. The image has a function entry for each procedure.

#pragma once

#include <cstdint>
#include <string>

struct GeneratedPdb {
  std::string pdb;
  std::string image;
};

// `size` is the approximate size of the PDB in bytes, from about 100 KB to about 1 GB.
GeneratedPdb generate_pdb(uint64_t size);
