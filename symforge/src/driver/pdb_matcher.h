// Which PDB belongs to which PE: the debug identifiers of a batch's PDBs, each read once.

#pragma once

#include <map>
#include <set>
#include <string>

namespace symforge_internal {

// The PDBs of a batch by debug identifier. The identifiers are read when the first one is asked
// for, all at once, in a child process: a PDB that is damaged enough to end the process that reads
// it just has no identifier, and neither has one that cannot be read. Nothing is logged.
class PdbMatcher {
 public:
  // `pdbs` must not change before the first question.
  explicit PdbMatcher(const std::set<std::string>& pdbs) : pdbs_(pdbs) {}

  // Takes the first PDB, in path order, that has the debug identifier of the image `exe` and was
  // not taken before. False when there is none, also when the image has no identifier.
  bool exe_pdb_match(const std::string& exe, std::string& pdb);

 private:
  void read_ids();

  const std::set<std::string>& pdbs_;
  bool read_ = false;
  // Equal identifiers stand in the order of their insertion, that is of their paths.
  std::multimap<std::string, std::string> paths_;
};

}  // namespace symforge_internal
