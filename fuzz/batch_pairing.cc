// Pairs an untrusted PDB and an untrusted image with valid ones, as a batch does.

#include <set>
#include <string>

#include "builders/bytes.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "fuzz/harness.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/driver/pdb_matcher.h"
#include "symforge/src/pe/image_identity.h"
#include "tests/support/process.h"

using namespace symforge_internal;
using builders::write_file;
using fuzzing::require;

FUZZ_TARGET(batch_pairing)(const uint8_t* data, size_t size) {
  static const test_support::TemporaryDirectory folder;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const bool is_image = bytes.starts_with("MZ");
  const std::string exe =
      folder.file("a.exe", is_image ? bytes : builders::PeBuilder().codeview({}, 1, "a").build());
  const std::string any = folder.file("any.pdb", is_image ? std::string() : bytes);
  static const std::string good = folder.file("good.pdb", builders::PdbBuilder(512).build().bytes);
  const std::set<std::string> pdbs = {any, good};

  for (const bool standard : {false, true}) {
    PdbMatcher matcher(pdbs, {.standard = standard});
    std::set<std::string> taken;
    std::string pdb;
    while (matcher.exe_pdb_match(exe, pdb) == PdbMatcher::Match::kFound) {
      require(pdbs.contains(pdb) && taken.insert(pdb).second, "each PDB once");
      const auto identity = pe_debug_id(exe.c_str());
      if (pdb != good) continue;  // a damaged PDB may end the process that reads it
      std::string id;
      require(pdb_debug_id(pdb.c_str(), id) && identity && identity->debug_id == id,
              "one identity");
    }
    require(is_image || taken.contains(good), "a valid PDB is found");
  }
  return 0;
}
