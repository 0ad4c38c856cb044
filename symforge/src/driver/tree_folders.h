// The folders that a conversion makes in a symbol tree before it reads its PDB.

#pragma once

#include <string>
#include <string_view>

namespace symforge_internal {

// Makes ROOT/NAME/IDENTIFIER, with mode 0777 and the umask. Folders that exist are kept, also when
// another process makes them at the same time. A folder that cannot be made ends the process with
// status 255 and a message on standard error. `name` must have an extension: the name of the symbol
// file is made by exchanging it.
void make_folders_or_exit(const char* root, std::string_view name, const std::string& id);

}  // namespace symforge_internal
