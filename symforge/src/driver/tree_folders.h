// The folders that a conversion makes in a symbol tree before it reads its PDB.

#pragma once

#include <string>
#include <string_view>

namespace symforge_internal {

// Makes ROOT/NAME/IDENTIFIER, with mode 0777 and the umask. Existing folders are kept, also those
// that another process makes at the same time. A folder that cannot be made ends the process with
// status 255 and a message on standard error. `name` must have an extension, which the symbol
// file's name replaces.
void make_folders_or_exit(const char* root, std::string_view name, const std::string& id);

}  // namespace symforge_internal
