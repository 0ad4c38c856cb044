// Reading a PE image: its identity, and the way from an RVA to bytes of the file.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "symforge/src/StreamReader.h"
#include "symforge/src/WinStructs.h"

namespace google_breakpad {

// The debug identifier of a 64-bit PE and the PDB name that its linker wrote, path included. False,
// without a message, for a null path and for every file without such an identity. Never throws but
// for memory.
bool pe64_debug_id(const char* path, std::string& debug_id, std::string& debug_file);

// A mapped PE32+ image. Valid while the mapping is; reads nothing outside of file and guard.
class PeImage {
 public:
  // `mapping` must be a mapped file; header() is then to be asked for before anything else.
  explicit PeImage(const MMapWrapper& mapping)
      : m_base(mapping.base()), m_length(mapping.length()) {}

  // The NT headers, or null: no DOS signature, e_lfanew 0, or headers that leave the file.
  const IMAGE_NT_HEADERS64* ntHeaders() const;

  // The DOS header checks alone: signature and an offset that is not 0.
  bool hasDosHeader() const;

  // The bytes at an RVA, or null when no section's part of the file holds it. Only the first byte
  // is known to lie in the file.
  const uint8_t* ImageRvaToVa(uint32_t rva) const;

  // The record at an RVA when it lies in the file whole, else null.
  template <typename Record>
  const Record* recordAt(uint32_t rva) const {
    return reinterpret_cast<const Record*>(bytesAt(rva, sizeof(Record)));
  }

  // `size` bytes at an RVA when they lie in the file, else null.
  const uint8_t* bytesAt(uint32_t rva, size_t size) const;

 private:
  const uint8_t* m_base;
  size_t m_length;
};

// Reads one compressed CodeView number and moves `data` behind it; 0xFFFFFFFF, and `data` unmoved,
// for a byte that begins no number. Looks at no more than 4 bytes.
uint32_t uncompressCV(const uint8_t*& data);

}  // namespace google_breakpad
