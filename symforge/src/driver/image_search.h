// Finding the PE image of a PDB that is converted without one being named.

#pragma once

#include <string>
#include <vector>

namespace symforge_internal {

// Default mode: the paths that the parser tries, whether they exist or not. The last three letters
// of the PDB's path are replaced by "exe" and "dll".
std::vector<std::string> default_images(const std::string& pdb);

// Standard mode: the files in the PDB's folder that begin like an image and have the same stem, in
// any case: for a.pdb those with the names "a", "a.exe", "a.node", "a.x.dll". In the order of
// their names; at most kMaxImageCandidates.
inline constexpr size_t kMaxImageCandidates = 256;
std::vector<std::string> files_of_same_stem(const std::string& pdb);

// The first candidate that is an image with that debug identifier, or null.
const std::string* find_image(const std::vector<std::string>& candidates,
                              const std::string& debug_id);

}  // namespace symforge_internal
