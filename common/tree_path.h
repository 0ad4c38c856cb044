// The path of a symbol file in a symbol tree: ROOT/a.pdb/ID/a.sym, or a.symb for SYMB.

#pragma once

#include <string>
#include <string_view>

namespace symforge_internal {

// Whether `name` can be one component of a path inside the tree: not empty, no separator in it,
// neither "." nor "..". Identities come from untrusted files.
inline bool is_tree_component(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

// The path of a symbol file, from a root, a debug file name and a debug identifier. Pure.
inline std::string tree_path(std::string_view root, std::string_view debug_file,
                             std::string_view debug_id, bool binary) {
  std::string_view stem = debug_file;
  if (stem.size() > 4 && stem.ends_with(".pdb")) stem.remove_suffix(4);
  std::string path(root);
  path.append("/").append(debug_file).append("/").append(debug_id);
  return path.append("/").append(stem).append(binary ? ".symb" : ".sym");
}

}  // namespace symforge_internal
