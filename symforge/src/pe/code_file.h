// CodeFile: the PE image (exe or dll) of a PDB: its identity and its unwind data.

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "base/mapped_file.h"
#include "base/text_buffer.h"
#include "symforge/src/pe/cfi_rows.h"

namespace symforge_internal {

// The path of the PE that belongs to a PDB: of the PDB's path with the extension exe or dll the
// first that exists, or else the second. Empty for a path that is too short for an extension.
std::string siblingPePath(const char* pdb);

class CodeFile {
 public:
  // Maps the image and reads its identity. A file that cannot be opened is no error: there is no
  // image then. Throws pdb_exception for a file that is no PE, and for managed code. To be called
  // once.
  void readPeHeaders(const char* path);

  // Whether there is an image.
  bool found() const { return m_found; }

  // The path as given to readPeHeaders().
  const std::string& path() const { return m_path; }

  // Bytes of the file; 0 without an image.
  size_t size() const { return m_mapping.length(); }
  // The image's machine, IMAGE_FILE_MACHINE_*.
  uint16_t machine() const { return m_machine; }

  // Time stamp and size of the image in upper-case hexadecimal digits. A short time stamp is padded
  // with blanks, not with zeros.
  std::string identifier() const;

  // The same as the standard format has it, with zeros in place of the blanks.
  std::string standardIdentifier() const;

  // Appends the INFO CODE_ID line; nothing without an image.
  void printCodeId(TextBuffer& out) const;
  void printStandardCodeId(TextBuffer& out) const;

  // Appends the unwind data of an x64 image as STACK CFI lines; nothing without an image. See
  // printUnwindData() for other images.
  void PrintFrameDataUsingEXE(TextBuffer& out) const;
  // Appends the rules of any image as STACK CFI lines; nothing without an image. Returns messages,
  // see writeUnwindRules().
  std::vector<std::string> printUnwindRules(std::span<const CodeRange> functions,
                                            TextBuffer& out) const;

 private:
  void printCodeId(const std::string& identifier, TextBuffer& out) const;

  MMapWrapper m_mapping;
  std::string m_path;
  bool m_found = false;
  uint16_t m_machine = 0;
  uint32_t m_timeStamp = 0;
  uint32_t m_imageSize = 0;  // SizeOfImage, bytes
};

}  // namespace symforge_internal
