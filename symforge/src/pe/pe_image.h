// Reading a PE image: its identity, and the way from an RVA to bytes of the file.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/mapped_file.h"
#include "symforge/src/WinStructs.h"

namespace symforge_internal {

// The debug identifier of a 64-bit PE and the PDB name that its linker wrote, path included. False,
// without a message, for a null path and for every file without such an identity; the two strings
// are untouched then. Never throws but for memory.
bool pe64_debug_id(const char* path, std::string& debug_id, std::string& debug_file);

// Managed code is refused: its symbols are not those of machine code.
inline constexpr char kClrNotSupported[] = "The image is a CLR assembly, which is not supported";

// Whether a PE32+ image is one of managed code. Images for the Xbox 360 count as none.
bool isClrAssembly(const IMAGE_NT_HEADERS64& headers);

// A mapped PE32+ image. Valid while the mapping is; reads nothing outside of the file and the zeros
// after it. RVAs are bytes from the image's base.
class PeImage {
 public:
  // `mapping` must be a mapped file, of any kind.
  explicit PeImage(const MMapWrapper& mapping);

  // The DOS header checks alone: the signature; and also an offset of the NT headers that is not 0.
  bool hasDosSignature() const;
  bool hasDosHeader() const;

  // The NT headers, or null: no DOS signature, or NT headers that leave the file. A PE32 image has
  // smaller ones, of which as many bytes must be in the file.
  const IMAGE_NT_HEADERS64* ntHeaders() const { return m_headers; }

  // Whether the NT headers, which must be there, are those of a PE32+ image.
  bool isPe32Plus() const;

  // The byte at an RVA, or null when no section's part of the file holds it; so always without NT
  // headers. Only this one byte is known to lie in the file.
  const uint8_t* ImageRvaToVa(uint32_t rva) const;

  // The record at an RVA when it lies in the file whole, else null.
  template <typename Record>
  const Record* recordAt(uint32_t rva) const {
    return reinterpret_cast<const Record*>(bytesAt(rva, sizeof(Record)));
  }

  // `size` bytes at an RVA when they lie in the file, else null.
  const uint8_t* bytesAt(uint32_t rva, size_t size) const;

  // Bytes from `at`, an address that this class gave, to the end of the file.
  size_t bytesLeft(const uint8_t* at) const { return static_cast<size_t>(m_base + m_length - at); }

 private:
  const uint8_t* m_base;
  size_t m_length;
  const IMAGE_NT_HEADERS64* m_headers = nullptr;
  const IMAGE_SECTION_HEADER* m_sections = nullptr;
  size_t m_sectionCount = 0;  // those that lie in the file
};

}  // namespace symforge_internal
