// The published records of a PE image that the converter reads, under their published names: see
// "PE Format" in Microsoft's documentation of Windows. Unwind data are in unwind_codes.h.

#pragma once

#include <cstddef>
#include <cstdint>

#include "base/little_endian.h"
#include "symforge/src/PDBHeaders.h"

namespace symforge_internal {

constexpr uint16_t IMAGE_DOS_SIGNATURE = 0x5A4D;
constexpr uint16_t IMAGE_FILE_MACHINE_I386 = 0x14C;
constexpr uint16_t IMAGE_FILE_MACHINE_ARM = 0x1C4;
constexpr uint16_t IMAGE_FILE_MACHINE_PPC64 = 0x1F2;  // number of Xbox 360 images
constexpr uint16_t IMAGE_FILE_MACHINE_AMD64 = 0x8664;
constexpr uint16_t IMAGE_FILE_MACHINE_ARM64 = 0xAA64;
constexpr uint16_t IMAGE_NT_OPTIONAL_HDR32_MAGIC = 0x10B;
constexpr uint16_t IMAGE_NT_OPTIONAL_HDR64_MAGIC = 0x20B;
constexpr uint32_t IMAGE_DEBUG_TYPE_CODEVIEW = 2;

enum DataDirectoryIndex {
  IMAGE_DIRECTORY_ENTRY_EXCEPTION = 3,
  IMAGE_DIRECTORY_ENTRY_DEBUG = 6,
  IMAGE_DIRECTORY_ENTRY_LOAD_CONFIG = 10,
  IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR = 14,  // the CLR header
};

struct IMAGE_DOS_HEADER {
  le_uint16 e_magic;
  uint8_t unused[58];
  le_uint32 e_lfanew;  // file offset of the NT headers
};
static_assert(sizeof(IMAGE_DOS_HEADER) == 64 && offsetof(IMAGE_DOS_HEADER, e_lfanew) == 60);

struct IMAGE_FILE_HEADER {
  le_uint16 Machine;
  le_uint16 NumberOfSections;
  le_uint32 TimeDateStamp;
  le_uint32 PointerToSymbolTable;
  le_uint32 NumberOfSymbols;
  le_uint16 SizeOfOptionalHeader;
  le_uint16 Characteristics;
};
static_assert(sizeof(IMAGE_FILE_HEADER) == 20);

struct IMAGE_DATA_DIRECTORY {
  le_uint32 VirtualAddress;  // RVA
  le_uint32 Size;            // bytes
};
static_assert(sizeof(IMAGE_DATA_DIRECTORY) == 8);

// Both optional headers agree up to offset 24 and again from SizeOfImage on; the bytes between are
// not read.
struct IMAGE_OPTIONAL_HEADER {
  le_uint16 Magic;
  uint8_t unused1[54];
  le_uint32 SizeOfImage;
  uint8_t unused2[36];
  IMAGE_DATA_DIRECTORY DataDirectory[16];
};
static_assert(sizeof(IMAGE_OPTIONAL_HEADER) == 224);
static_assert(offsetof(IMAGE_OPTIONAL_HEADER, SizeOfImage) == 56);
static_assert(offsetof(IMAGE_OPTIONAL_HEADER, DataDirectory) == 96);

struct IMAGE_OPTIONAL_HEADER64 {
  le_uint16 Magic;
  uint8_t unused1[22];
  LittleEndian<uint64_t> ImageBase;
  uint8_t unused3[24];
  le_uint32 SizeOfImage;
  uint8_t unused2[52];
  IMAGE_DATA_DIRECTORY DataDirectory[16];
};
static_assert(sizeof(IMAGE_OPTIONAL_HEADER64) == 240);
static_assert(offsetof(IMAGE_OPTIONAL_HEADER64, ImageBase) == 24);
static_assert(offsetof(IMAGE_OPTIONAL_HEADER64, SizeOfImage) == 56);
static_assert(offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory) == 112);

struct IMAGE_NT_HEADERS32 {
  le_uint32 Signature;
  IMAGE_FILE_HEADER FileHeader;
  IMAGE_OPTIONAL_HEADER OptionalHeader;
};
static_assert(sizeof(IMAGE_NT_HEADERS32) == 248);

struct IMAGE_NT_HEADERS64 {
  le_uint32 Signature;
  IMAGE_FILE_HEADER FileHeader;
  IMAGE_OPTIONAL_HEADER64 OptionalHeader;
};
static_assert(sizeof(IMAGE_NT_HEADERS64) == 264 && alignof(IMAGE_NT_HEADERS64) == 1);

struct IMAGE_SECTION_HEADER {
  uint8_t Name[8];
  le_uint32 VirtualSize;
  le_uint32 VirtualAddress;  // RVA
  le_uint32 SizeOfRawData;   // bytes in the file
  le_uint32 PointerToRawData;
  le_uint32 PointerToRelocations;
  le_uint32 PointerToLinenumbers;
  le_uint16 NumberOfRelocations;
  le_uint16 NumberOfLinenumbers;
  le_uint32 Characteristics;
};
static_assert(sizeof(IMAGE_SECTION_HEADER) == 40 && alignof(IMAGE_SECTION_HEADER) == 1);

struct IMAGE_DEBUG_DIRECTORY {
  le_uint32 Characteristics;
  le_uint32 TimeDateStamp;
  le_uint16 MajorVersion;
  le_uint16 MinorVersion;
  le_uint32 Type;
  le_uint32 SizeOfData;
  le_uint32 AddressOfRawData;  // RVA
  le_uint32 PointerToRawData;
};
static_assert(sizeof(IMAGE_DEBUG_DIRECTORY) == 28);

struct IMAGE_RUNTIME_FUNCTION_ENTRY {
  le_uint32 BeginAddress;  // RVA
  le_uint32 EndAddress;    // RVA, one past the last byte
  le_uint32 UnwindInfoAddress;
};
static_assert(sizeof(IMAGE_RUNTIME_FUNCTION_ENTRY) == 12);

// The NUL-terminated PdbFileName follows.
struct CV_INFO_PDB70 {
  le_uint32 CvSignature;  // "RSDS"
  GUID Signature;
  le_uint32 Age;
};
static_assert(sizeof(CV_INFO_PDB70) == 24);
constexpr uint32_t kCvSignatureRSDS = 0x53445352;

}  // namespace symforge_internal
