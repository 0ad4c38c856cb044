// PdbMatcher: finds the PDB of a PE by debug identifier; reads the identifiers of a batch's PDBs
// once.

#pragma once

#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/text_hash.h"
#include "symforge/src/driver/conversion_options.h"

namespace symforge_internal {

// The PDBs of a batch by debug identifier. All identifiers are read at the first search, in a child
// process. A PDB that cannot be read, or is so damaged that it ends the process that reads it, has
// no identifier. Nothing is logged.
class PdbMatcher {
 public:
  // `pdbs` must not change before the first search. In standard mode 32-bit images also have an
  // identifier. With the option `sandbox` the child process can read files and nothing else.
  PdbMatcher(const std::set<std::string>& pdbs, const ConversionOptions& options)
      : pdbs_(pdbs), any_width_(options.standard), sandbox_(options.sandbox) {}

  enum class Match {
    kFound,
    kTaken,  // all PDBs of the identifier have been taken
    kNone,   // there is no such PDB, or the image has no identifier
  };

  // Takes the first PDB, in path order, that has the debug identifier of the image `exe` and was
  // not taken before.
  Match exe_pdb_match(const std::string& exe, std::string& pdb);

  // The debug identifier of one of the PDBs, or an empty string.
  std::string id_of(const std::string& pdb);

 private:
  void read_ids();

  const std::set<std::string>& pdbs_;
  const bool any_width_;
  const bool sandbox_;
  bool read_ = false;
  std::unordered_map<std::string, std::string, TextHash> ids_;  // by path
  // By identifier, the paths in descending order.
  std::map<std::string, std::vector<std::string>> paths_;
};

}  // namespace symforge_internal
