// Reading a PE image: its identity, and bytes of the file by RVA.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "base/mapped_file.h"
#include "symforge/src/WinStructs.h"
#include "symforge/src/pe/section_index.h"

namespace symforge_internal {

// The debug identifier of a 64-bit PE and the PDB name that its linker wrote, path included. False,
// without a message, for a null path and for every file without such an identity; the two strings
// are then unchanged. Throws only bad_alloc.
bool pe64_debug_id(const char* path, std::string& debug_id, std::string& debug_file);

// The message for managed code, which is refused: its symbols are not those of machine code.
inline constexpr char kClrNotSupported[] = "The image is a CLR assembly, which is not supported";

// Whether a PE32+ image is managed code. Images for the Xbox 360 are not.
bool isClrAssembly(const IMAGE_NT_HEADERS64& headers);

// A view of a mapped PE32+ image. Valid while the mapping is; reads nothing outside the file and
// the zeros after it. RVAs are bytes from the image's base.
class PeImage {
 public:
  // `mapping` must be a mapped file, of any kind.
  explicit PeImage(const MMapWrapper& mapping);

  // Checks of the DOS header alone: the signature; the signature and a non-zero offset of the NT
  // headers.
  bool hasDosSignature() const;
  bool hasDosHeader() const;

  // The NT headers, or null: no DOS signature, or NT headers that leave the file. A PE32 image has
  // smaller ones, of which as many bytes must be in the file.
  const IMAGE_NT_HEADERS64* ntHeaders() const { return m_headers; }

  // Whether the NT headers, which must be there, are those of a PE32+ image.
  bool isPe32Plus() const;

  // The byte at an RVA, or null when no section has it in the file, or without NT headers. Only
  // this one byte is known to be in the file.
  const uint8_t* ImageRvaToVa(uint32_t rva) const;

  // The record at an RVA if all of it is in the file, else null.
  template <typename Record>
  const Record* recordAt(uint32_t rva) const {
    return reinterpret_cast<const Record*>(bytesAt(rva, sizeof(Record)));
  }

  // The first `count` records of a table at an RVA, fewer if the file ends before.
  template <typename Record>
  std::span<const Record> tableAt(uint32_t rva, size_t count) const {
    const uint8_t* bytes = count == 0 ? nullptr : ImageRvaToVa(rva);
    if (bytes == nullptr) return {};
    return {reinterpret_cast<const Record*>(bytes),
            std::min(count, bytesLeft(bytes) / sizeof(Record))};
  }

  // `size` bytes at an RVA if all of them are in the file, else null.
  const uint8_t* bytesAt(uint32_t rva, size_t size) const;

  // Bytes from `at`, an address that this class returned, to the end of the file.
  size_t bytesLeft(const uint8_t* at) const { return static_cast<size_t>(m_base + m_length - at); }

 private:
  const uint8_t* m_base;
  size_t m_length;
  const IMAGE_NT_HEADERS64* m_headers = nullptr;
  const IMAGE_SECTION_HEADER* m_sections = nullptr;
  size_t m_sectionCount = 0;  // of section headers in the file
  static constexpr size_t kMostScanned = 128;
  SectionIndex m_index;  // if there are more sections
};

}  // namespace symforge_internal
