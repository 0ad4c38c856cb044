// Which PDB a PE image was made with, for images of either width.

#pragma once

#include <optional>
#include <string>

namespace symforge_internal {

// What the CodeView record of an image says about its PDB.
struct ImageIdentity {
  std::string debug_id;    // in the form of a PDB's identifier
  std::string debug_file;  // the path of the PDB as the linker wrote it
};

// Whether the file begins like an image ("MZ"). Reads two bytes of a regular file; false for
// everything else.
bool begins_like_image(const char* path);

// The identity of a PE32 or PE32+ image, whatever its name. Empty, without a message, for every
// file that is no image or has no such record. Reads headers and the record alone, through
// positions that are checked by the system; nothing of the file is mapped. Throws only bad_alloc.
std::optional<ImageIdentity> pe_debug_id(const char* path);

}  // namespace symforge_internal
