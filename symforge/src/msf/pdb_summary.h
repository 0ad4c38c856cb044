// PdbSummary: the identity of a PDB, read from a few of its pages.
//
// Conversions map a PDB and decode its whole stream directory. This reads the words and records
// that it needs with read calls at their file positions, so that the cost does not depend on the
// size of the file, and a file that is cut short or changed meanwhile is a failed read.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace symforge_internal {

struct PdbSummary {
  std::string debug_id;        // as in a MODULE line
  uint16_t machine = 0;        // IMAGE_FILE_MACHINE_*
  bool foreign_types = false;  // the first type record names a type server, or /DEBUG:FASTLINK
  bool managed = false;        // has a map of metadata tokens: all or some of its code is managed
};

// Empty for what is not an MSF 7.00 file with the streams that say this. `fd`: a regular file,
// which the caller keeps; its position is not used. Throws only bad_alloc.
std::optional<PdbSummary> read_pdb_summary(int fd);

}  // namespace symforge_internal
