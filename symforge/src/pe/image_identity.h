// Which PDB a PE image was linked with, for 32-bit and 64-bit images.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace symforge_internal {

// The PDB of an image, from its CodeView record.
struct ImageIdentity {
  std::string debug_id;    // in the form of a PDB's identifier
  std::string debug_file;  // the path of the PDB as the linker wrote it
};

// What the headers of an image say.
struct ImageSummary {
  uint16_t machine = 0;  // IMAGE_FILE_MACHINE_*
  uint32_t time_stamp = 0;
  uint32_t size = 0;     // of the image in memory, bytes
  bool managed = false;  // has a CLR header
  std::optional<ImageIdentity> pdb;

  // Time stamp and size as upper-case hexadecimal digits, the first padded to 8.
  std::string code_id() const;
};

// Whether the file begins like an image ("MZ"). Reads two bytes of a regular file; false for
// everything else.
bool begins_like_image(const char* path);

// The identity of a PE32 or PE32+ image, whatever its name. Empty, without a message, for every
// file that is not an image or has no such record. Reads only headers and the record, with read
// calls at file positions; nothing is mapped. Throws only bad_alloc.
std::optional<ImageIdentity> pe_debug_id(const char* path);

// The same, with what the headers say about the image itself. Empty for every file that is not an
// image.
std::optional<ImageSummary> read_image_summary(const char* path);
// The code identifier of an image. Empty for a file that is not an image. Reads only headers.
std::string pe_code_id(const char* path);

}  // namespace symforge_internal
