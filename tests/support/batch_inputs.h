// A folder of inputs for batches, and the order in which a batch has to convert them.

#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace test_support {

// "p7.pdb" of "p", 7 and ".pdb".
std::string numbered(const std::string& stem, uint32_t number, const std::string& extension);

class BatchInputs {
 public:
  // The folder is `in`.
  explicit BatchInputs(const TemporaryDirectory& temp) : temp_(temp) {}

  void pair(uint32_t number, const std::string& pdb, const std::string& exe,
            uint32_t functions = 3);
  void pdb(const std::string& name, const std::string& bytes) { add(pdbs_, name, bytes); }
  void pe(const std::string& name, const std::string& bytes) { add(pes_, name, bytes); }
  void text(const std::string& name, const std::string& bytes) { add(syms_, name, bytes); }
  // Pairs with unrelated names in two folders, PDBs and images without a partner, texts with their
  // image.
  void add_good_files(uint32_t count);
  void add_bad_files();

  // The arguments of the single conversions that a batch into `tree` is equivalent to.
  std::vector<std::vector<std::string>> conversions(const std::string& tree) const;

 private:
  std::string add(std::set<std::string>& set, const std::string& name, const std::string& bytes);

  const TemporaryDirectory& temp_;
  std::set<std::string> syms_, pes_, pdbs_;
  std::map<std::string, std::string> pe_with_pdb_;
};

}  // namespace test_support
