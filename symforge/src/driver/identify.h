// What a file is and where its symbols belong, without a conversion.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "symforge/src/driver/file_kind.h"

namespace symforge_internal {

// What the first pages of a file say. Empty: it does not say.
struct FileIdentity {
  FileKind kind = FileKind::kUnknown;
  std::string error;      // why the file cannot be read
  std::string kind_name;  // kind_name(kind), or a special case of it
  std::string architecture;
  std::string debug_file;
  std::string debug_id;
  std::string code_file;
  std::string code_id;
  std::optional<uint32_t> image_size;  // bytes of the image in memory
  std::optional<uint32_t> time_stamp;

  // The place of the symbol file below the root of a tree, for a SYMB file that of the SYMB form.
  // Empty if the identity has no place.
  std::string place_in_tree() const;
};

// Reads a few pages of a regular file; nothing is mapped. Damaged files have an incomplete
// identity. Throws only bad_alloc.
FileIdentity identify_file(const std::string& path);

// Writes the identity of each file as a line of JSON to standard output. The exit status: 1 if a
// file is of no known kind, cannot be read, or if the output cannot be written.
int identify_files(const std::vector<std::string>& paths);

}  // namespace symforge_internal
