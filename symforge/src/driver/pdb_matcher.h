// Which PDB belongs to which PE: the debug identifiers of a batch's PDBs, each read once.

#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "symforge/src/driver/conversion_options.h"

namespace symforge_internal {

// The PDBs of a batch by debug identifier. The identifiers are read when the first one is asked
// for, all at once, in a child process: a PDB that is damaged enough to end the process that reads
// it just has no identifier, and neither has one that cannot be read. Nothing is logged.
class PdbMatcher {
 public:
  // `pdbs` must not change before the first question. In standard mode 32-bit images have an
  // identifier too. With the option `sandbox` the child process can read files and nothing else.
  PdbMatcher(const std::set<std::string>& pdbs, const ConversionOptions& options)
      : pdbs_(pdbs), any_width_(options.standard), sandbox_(options.sandbox) {}

  enum class Match {
    kFound,
    kTaken,  // all PDBs of the identifier were taken before
    kNone,   // there is no such PDB, or the image has no identifier
  };

  // Takes the first PDB, in path order, that has the debug identifier of the image `exe` and was
  // not taken before.
  Match exe_pdb_match(const std::string& exe, std::string& pdb);

 private:
  void read_ids();

  const std::set<std::string>& pdbs_;
  const bool any_width_;
  const bool sandbox_;
  bool read_ = false;
  // By identifier, the paths in descending order.
  std::map<std::string, std::vector<std::string>> paths_;
};

}  // namespace symforge_internal
