// The records of a PDB's container: the MSF file header, the PDB info stream, the DBI stream, frame
// data. They match the bytes of the mapped file. codeview.h has the records of type and module
// streams. Published, in part under other names, in LLVM's documentation, "The PDB File Format"
// (with "The MSF File Format" and "The PDB DBI Stream").

#pragma once

#include <cstddef>
#include <cstdint>

#include "base/little_endian.h"

namespace symforge_internal {

// The stream number that means "no such stream".
constexpr uint16_t kNoStream = 0xFFFF;
// The size of a deleted stream in the stream directory: it has no bytes and no pages.
constexpr uint32_t kDeletedStream = 0xFFFFFFFF;

struct GUID {
  le_uint32 Data1;
  le_uint16 Data2;
  le_uint16 Data3;
  uint8_t Data4[8];
};
static_assert(sizeof(GUID) == 16);

// The first 32 bytes of an MSF 7.00 file, including the trailing zeros.
inline constexpr char validSignature[33] = "Microsoft C/C++ MSF 7.00\r\n\x1A\x44\x53\0\0\0";

// At offset 0 of the file. It is followed by the numbers of the pages that contain the list of the
// stream directory's pages, a uint32 each.
struct PDBHeader {
  char signature[32];
  le_uint32 pageSize;
  le_int32 freePageMap;
  le_int32 pagesUsed;
  le_uint32 directorySize;  // bytes
  le_uint32 reserved;
};
static_assert(sizeof(PDBHeader) == 52 && alignof(PDBHeader) == 1);
static_assert(offsetof(PDBHeader, pageSize) == 32 && offsetof(PDBHeader, directorySize) == 44);

// Start of the PDB info stream. The name buffer follows, and after it the table of named streams.
struct NameIndexHeader {
  le_uint32 version;
  le_uint32 timeDateStamp;
  le_uint32 age;  // not used: the debug identifier has the DBI header's
  GUID guid;
  le_uint32 names;  // bytes of the name buffer
};
static_assert(sizeof(NameIndexHeader) == 32 && offsetof(NameIndexHeader, names) == 28);

// One entry of the table of named streams.
struct StringVal {
  le_uint32 id;      // offset of the name in the name buffer
  le_uint32 stream;  // stream number
};
static_assert(sizeof(StringVal) == 8);

// Start of the stream named /NAMES. The string area follows, then the bucket count and the buckets.
struct NameStreamHeader {
  le_uint32 sig;
  le_int32 version;
  le_int32 offset;  // bytes of the string area
};
static_assert(sizeof(NameStreamHeader) == 12);

// Start of the DBI stream. Its substreams follow in this order: modules, section contributions,
// section map, file info, source modules (type server map), edit-and-continue info; then the debug
// header.
struct DBIHeader {
  le_uint32 signature;
  le_uint32 version;
  le_uint32 age;
  le_int16 gssymStream;
  le_uint16 vers;
  le_int16 pssymStream;
  le_uint16 pdbVersion;
  le_uint16 symRecordStream;
  le_uint16 pdbVersion2;
  le_uint32 moduleSize;
  le_uint32 secConSize;
  le_uint32 secMapSize;
  le_uint32 fileInfoSize;
  le_uint32 srcModuleSize;
  le_uint32 mfcIndex;  // an index, not a size
  le_uint32 dbgHeaderSize;
  le_uint32 ecInfoSize;
  le_uint16 flags;
  le_uint16 machine;  // IMAGE_FILE_MACHINE_*
  le_uint32 reserved;
};
static_assert(sizeof(DBIHeader) == 64 && alignof(DBIHeader) == 1);
static_assert(offsetof(DBIHeader, symRecordStream) == 20 && offsetof(DBIHeader, moduleSize) == 24);
static_assert(offsetof(DBIHeader, ecInfoSize) == 52 && offsetof(DBIHeader, machine) == 58);

// A section contribution; skipped here.
struct DBISecCon {
  le_int16 section;
  le_uint16 padding1;
  le_int32 offset;
  le_uint32 size;
  le_uint32 flags;
  le_int16 module;
  le_uint16 pad2;
  le_uint32 dataCrc;
  le_uint32 relocCrc;
};
static_assert(sizeof(DBISecCon) == 28);

// Fixed part of a module record. Module name and object file name follow, NUL-terminated, then
// padding to a multiple of 4 of the stream offset.
struct DBIModuleInfo {
  le_int32 opened;
  DBISecCon sector;
  le_uint16 flags;
  le_int16 stream;  // -1: the module has none
  le_uint32 cbSyms;
  le_uint32 cbOldLines;
  le_uint32 cbLines;
  le_int16 files;
  le_int16 padding;
  le_uint32 offsets;
  le_int32 niSource;
  le_int32 niCompiler;
};
static_assert(sizeof(DBIModuleInfo) == 64 && alignof(DBIModuleInfo) == 1);
static_assert(offsetof(DBIModuleInfo, stream) == 34 && offsetof(DBIModuleInfo, cbLines) == 44);

// The debug header: stream numbers, kNoStream for a stream that does not exist.
struct DBIDebugHeader {
  le_uint16 FPO;
  le_uint16 exception;
  le_uint16 fixup;
  le_uint16 omapToSource;
  le_uint16 omapFromSource;
  le_uint16 sectionHdr;
  le_uint16 tokenRidMap;
  le_uint16 XData;
  le_uint16 PData;
  le_uint16 newFPO;
  le_uint16 sectionHdrOriginal;
};
static_assert(sizeof(DBIDebugHeader) == 22 && offsetof(DBIDebugHeader, sectionHdrOriginal) == 20);

// One entry of an OMAP table: code that the linker put at `first` is at `second` after the
// image was rewritten. Both are RVAs.
struct OmapEntry {
  le_uint32 first;
  le_uint32 second;
};
static_assert(sizeof(OmapEntry) == 8);

// Frame data, old form.
struct FPO_DATA {
  le_uint32 ulOffStart;  // RVA of the code
  le_uint32 cbProcSize;  // bytes of code
  le_uint32 cdwLocals;   // double words
  le_uint16 cdwParams;   // double words
  uint8_t cbProlog;      // bytes
  uint8_t bits;          // cbRegs 0-2, fHasSEH 3, fUseBP 4, reserved 5, cbFrame 6-7

  uint8_t cbRegs() const { return bits & 7; }
  bool fUseBP() const { return (bits & 0x10) != 0; }
};
static_assert(sizeof(FPO_DATA) == 16 && offsetof(FPO_DATA, bits) == 15);

// Frame data, new form: the frame is described by a program in the global string table.
struct FPO_DATA_V2 {
  le_uint32 ulOffStart;
  le_uint32 cbProcSize;
  le_uint32 cbLocals;
  le_uint32 cbParams;
  le_uint32 maxStack;
  le_uint32 ProgramStringOffset;
  le_uint16 cbProlog;
  le_uint16 cbSavedRegs;
  le_uint32 flags;  // SEH 1, C++ EH 2, start of a function 4
};
static_assert(sizeof(FPO_DATA_V2) == 32 && offsetof(FPO_DATA_V2, cbProlog) == 24);

}  // namespace symforge_internal
