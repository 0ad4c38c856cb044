// CodeFile: the PE image (exe or dll) of a PDB: its identity and its unwind data.

#pragma once

#include <cstdint>
#include <string>

#include "base/mapped_file.h"
#include "base/text_buffer.h"

namespace symforge_internal {

// The path of the PE that belongs to a PDB: of the PDB's path with the extension exe or dll the
// first that exists, or else the second. Throws std::out_of_range for a path that is too short for
// an extension.
std::string siblingPePath(const char* pdb);

class CodeFile {
 public:
  // Maps the image and reads its identity. A file that cannot be opened is no error: there is no
  // image then. Throws pdb_exception for a file that is no PE, and for managed code. To be called
  // once.
  void readPeHeaders(const char* path);

  // Whether there is an image.
  bool found() const { return m_found; }

  // Appends the INFO CODE_ID line; nothing without an image.
  void printCodeId(TextBuffer& out) const;
  // The same in the standard format, which pads a short time stamp with zeros.
  void printStandardCodeId(TextBuffer& out) const;

  // Appends the unwind data of an x64 image as STACK CFI lines; nothing without an image. See
  // printUnwindData() for other images.
  void PrintFrameDataUsingEXE(TextBuffer& out) const;

 private:
  void printCodeId(bool zeros, TextBuffer& out) const;

  MMapWrapper m_mapping;
  std::string m_path;
  bool m_found = false;
  uint32_t m_timeStamp = 0;
  uint32_t m_imageSize = 0;  // SizeOfImage, bytes
};

}  // namespace symforge_internal
