// Small inputs of the program. Those with the same number belong together.

#pragma once

#include <cstdint>
#include <string>

#include "builders/pdb_builder.h"

namespace test_support {

builders::Guid guid_of(uint32_t number);
// The debug identifier of the files below.
std::string id_of(uint32_t number);

// A PDB with one code section, to which functions can be added.
builders::PdbBuilder pdb_with_code();
std::string make_pdb(uint32_t number, uint32_t functions = 3);
std::string make_pe(uint32_t number, const std::string& pdb_name = "linked.pdb",
                    bool pe32_plus = true);
std::string make_text(uint32_t number, const std::string& pdb_name, size_t functions = 3);

// PDBs that are not converted: of managed code, of types for others, with its code's data
// elsewhere.
std::string managed_pdb();
std::string type_server_pdb();
std::string fastlink_pdb();
// One whose reading ends with a failed check: its stream directory has no bytes.
std::string aborting_pdb();

}  // namespace test_support
