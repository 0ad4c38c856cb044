#include "tests/support/batch_inputs.h"

#include "builders/pe_builder.h"
#include "tests/support/small_files.h"

namespace test_support {

using builders::PeBuilder;

std::string numbered(const std::string& stem, uint32_t number, const std::string& extension) {
  return stem + std::to_string(number) + extension;
}

std::string BatchInputs::add(std::set<std::string>& set, const std::string& name,
                             const std::string& bytes) {
  return *set.insert(temp_.file("in/" + name, bytes)).first;
}

void BatchInputs::pair(uint32_t number, const std::string& pdb, const std::string& exe,
                       uint32_t functions) {
  pe_with_pdb_[add(pes_, exe, make_pe(number))] = add(pdbs_, pdb, make_pdb(number, functions));
}

void BatchInputs::add_good_files(uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    pair(i, numbered("symbols/p", i, i % 3 ? ".pdb" : ".PDB"),
         numbered("bin/image", count - i, i % 2 ? ".dll" : ".Exe"));
    pdb(numbered("lone", i, ".pdb"), make_pdb(1000 + i));
    text(numbered("text/t", i, i % 2 ? ".sym" : ".SYM"), make_text(2000 + i, "t.pdb"));
    if (i % 2) pe(numbered("bin/joined", i, ".exe"), make_pe(2000 + i, "t.pdb"));
  }
}

void BatchInputs::add_bad_files() {
  const std::string whole_pdb = make_pdb(3000);
  const std::string whole_pe = make_pe(3001, "a.pdb");
  const std::string whole_text = make_text(3002, "cut.pdb");
  for (uint32_t i = 0; i < 16; ++i) {
    pdb(numbered("bad/cut", i, ".pdb"), whole_pdb.substr(0, whole_pdb.size() * i / 16));
    pe(numbered("bad/cut", i, ".dll"), whole_pe.substr(0, whole_pe.size() * i / 16));
    text(numbered("bad/cut", i, ".sym"), whole_text.substr(0, whole_text.size() * i / 16));
  }
  text("bad/symb.sym", "SYMB" + std::string(200, '\xFF'));
  pe("bad/no_debug_record.exe", PeBuilder().build());
  pe("bad/32bit.exe", PeBuilder(false).build());
  pe("bad/lone.exe", make_pe(3003, "nowhere.pdb"));
  temp_.file("in/bad/readme.txt", whole_pdb);
  temp_.file("in/.hidden/a.pdb", make_pdb(3004));
  temp_.file("in/.hidden.pdb", make_pdb(3005));
  pdb("bad/foreign.pdb", "X" + whole_pdb.substr(1));
}

std::vector<std::vector<std::string>> BatchInputs::conversions(const std::string& tree) const {
  std::vector<std::vector<std::string>> runs;
  std::set<std::string> left = pdbs_;
  for (const std::string& sym : syms_) runs.push_back({"-s", tree, sym});
  for (const std::string& exe : pes_) {
    runs.push_back({"-s", tree, "-e", exe});
    if (const auto pdb = pe_with_pdb_.find(exe); pdb != pe_with_pdb_.end()) {
      runs.back().push_back(pdb->second);
      left.erase(pdb->second);
    }
  }
  for (const std::string& pdb : left) runs.push_back({"-s", tree, pdb});
  return runs;
}

}  // namespace test_support
