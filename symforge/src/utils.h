// The layout of a Breakpad symbol tree, and the identity of a symbol file that decides its place in
// the tree.
//
//   ROOT/a.pdb/                 one folder per debug file
//   ROOT/a.pdb/ID/a.sym         text symbol file of the build with the debug identifier ID
//   ROOT/a.pdb/ID/a.symb        the same as a SYMB image
//   ROOT/a.pdb/CODE_ID -> ID    from the code identifier of the build's PE
//
// None of these operations logs; the caller reports a false result.

#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/tree_path.h"

// A symbol file's identity, from its MODULE and INFO CODE_ID lines. All strings are empty at first.
struct sym_info {
  std::string os;          // MODULE, word 2
  std::string arch;        // MODULE, word 3
  std::string debug_id;    // MODULE, word 4
  std::string debug_file;  // MODULE, the rest of the line; may hold blanks
  std::string code_id;     // INFO CODE_ID, word 3: time stamp and size of the PE
  std::string code_file;   // INFO CODE_ID, the rest of the line; may hold blanks
};

// Fills `info` from a NUL-terminated symbol text. The last MODULE line before the first INFO
// CODE_ID line is used, which ends the scan; a last line without a line feed is ignored. True when
// debug_id and debug_file are both known. A MODULE or INFO CODE_ID line of 4096 bytes or more
// (without its line feed) makes the text invalid.
bool sym_info_parse(const char* data, sym_info& info);

// Puts the path of a symbol file into `path`. `create` makes the two folders below the root with
// mode 0700; false when that fails or when debug_file or debug_id would leave its folder. Without
// `create` nothing is changed and the result is true.
bool synthesize_sym_path(const char* sym_path, const char* debug_file, const char* debug_id,
                         bool binary, bool create, std::string& path);

// Converts a string to upper case in place, except its first character, and returns it. Null is
// returned unchanged.
char* strupper(char* str);

namespace symforge_internal {

// The path of the symbol file of that identity when it exists in the tree, else empty. Nothing
// outside the identity's own folder is reached: neither by names that are not tree components nor
// by a symbolic link in the place of the identifier's folder.
std::string existing_tree_path(std::string_view root, std::string_view debug_file,
                               std::string_view debug_id, bool binary);

// Whether a symbolic link has this name.
bool is_link(const std::string& path);

enum class TreeFolders {
  kMade,          // both exist now
  kNoFileFolder,  // ROOT/DEBUG_FILE could not be made
  kNoIdFolder,    // ROOT/DEBUG_FILE/DEBUG_ID could not be made
};

// Makes the folders of an identity, with `mode` less the umask, unless entries of their names exist
// (also a plain file: creating files in it then fails). Several processes may fill one tree: a
// folder that another process makes at the same time is used.
//
// The folder of a debug file may be a symbolic link to another folder. The folder of an identifier
// must not: a link there was made from the code identifier of another module, which would receive
// the files of this one. Such a link (its target is a sibling) is replaced by a folder; any other
// link is a failure. On failure `errno` says why.
TreeFolders make_tree_folders(const std::string& root, std::string_view debug_file,
                              std::string_view debug_id, mode_t mode);

}  // namespace symforge_internal
