// Which entries of a symbol tree a conversion reads, writes or links, found out before it runs.

#pragma once

#include <string>
#include <vector>

namespace symforge_internal {

// The places of one conversion. Everything that it touches in a tree is below the folder of one
// debug file: the folder of the identifier with its files, and the link of the code identifier.
struct TreePlaces {
  // False: the file cannot be read so far, and the conversion can touch anything.
  bool known = false;
  // Of the symbol file. Empty if the conversion is known to fail before it touches the tree.
  std::string debug_file;
  std::string debug_id;
  // The names that a link can get. The first one is the image's, the others are possible.
  std::vector<std::string> code_ids;
  // The image that is read, if it was found without being named.
  std::string image;

  // A key of each place, for JobOrder. Names that differ in case alone have the same key, as some
  // file systems do not distinguish them.
  std::vector<std::string> keys() const;
};

// The places of a text symbol file or a SYMB image.
TreePlaces places_of_text(const std::string& path);

// The places of a 64-bit image without PDB.
TreePlaces places_of_image(const std::string& path);

// The places of a PDB with that debug identifier; empty: unknown. `exe` is its image, or empty:
// then those that `candidates` names can be it, as far as they exist.
TreePlaces places_of_pdb(const std::string& path, const std::string& debug_id,
                         const std::string& exe, const std::vector<std::string>& candidates);

}  // namespace symforge_internal
