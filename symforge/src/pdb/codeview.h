// CodeView records: symbols and C13 subsections of module streams, public symbols, type records.
// They match the bytes of the mapped file. Published as the CodeView format, mostly under these
// names; in LLVM's documentation under "CodeView Symbol Records" and "CodeView Type Records".

#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "base/little_endian.h"

namespace symforge_internal {

// ---- Symbols

// Head of every symbol record of a module stream.
struct SymbolHeader {
  le_uint16 size;  // bytes after this field, `type` included
  le_uint16 type;
};
static_assert(sizeof(SymbolHeader) == 4);

enum SymbolKind : uint16_t {
  S_NONE = 0x0000,  // ends the walk of a module's symbols
  S_THUNK32 = 0x1102,
  S_LPROC32 = 0x110F,
  S_GPROC32 = 0x1110,
  S_SEPCODE = 0x1132,
  S_INLINESITE = 0x114D,
  S_INLINESITE_END = 0x114E,
  S_INLINESITE2 = 0x115D,
};

// A set of kinds from kFirst on; others are never in it.
class SymbolKinds {
 public:
  constexpr SymbolKinds(std::initializer_list<SymbolKind> kinds) {
    for (const SymbolKind kind : kinds) {
      const unsigned place = kind - kFirst;
      m_bits[place / 64] |= uint64_t{1} << place % 64;
    }
  }
  bool has(uint16_t kind) const {
    const unsigned place = unsigned{kind} - kFirst;
    return place < 128 && (m_bits[place / 64] >> place % 64 & 1) != 0;
  }

 private:
  static constexpr unsigned kFirst = 0x1100;

  uint64_t m_bits[2] = {};
};

// Body of a procedure symbol; the NUL-terminated name follows.
struct ProcSym32 {
  le_uint32 parent;
  le_uint32 end;
  le_uint32 next;
  le_uint32 len;
  le_uint32 dbgStart;
  le_uint32 dbgEnd;
  le_uint32 typind;
  le_uint32 off;
  le_uint16 seg;
  uint8_t flags;
};
static_assert(sizeof(ProcSym32) == 35 && offsetof(ProcSym32, seg) == 32);

// Body of a thunk symbol; the NUL-terminated name follows.
struct ThunkSym32 {
  le_uint32 parent;
  le_uint32 end;
  le_uint32 next;
  le_uint32 off;
  le_uint16 seg;
  le_uint16 len;
  uint8_t ord;
};
static_assert(sizeof(ThunkSym32) == 21 && offsetof(ThunkSym32, len) == 18);

// Body of an inline-site symbol; the binary annotations follow.
struct CV_InlineSite {
  le_uint32 parent;
  le_uint32 end;
  le_uint32 inlinee;
};
static_assert(sizeof(CV_InlineSite) == 12);

// The second form of it (S_INLINESITE2); the binary annotations follow.
struct CV_InlineSite2 {
  le_uint32 parent;
  le_uint32 end;
  le_uint32 inlinee;
  le_uint32 invocations;
};
static_assert(sizeof(CV_InlineSite2) == 16);

// Body of the symbol of a part of a function that the compiler moved away from it.
struct SepCodeSym {
  le_uint32 parent;
  le_uint32 end;
  le_uint32 length;
  le_uint32 flags;
  le_uint32 off;
  le_uint32 parentOff;  // of the function
  le_uint16 sec;
  le_uint16 parentSec;
};
static_assert(sizeof(SepCodeSym) == 28 && offsetof(SepCodeSym, sec) == 24);

// A record of the symbol record stream, without its length; the name follows.
struct GlobalRecord {
  le_uint16 leafType;
  le_uint32 symType;  // public symbol flags; 2: a function
  le_uint32 offset;
  le_uint16 segment;
};
static_assert(sizeof(GlobalRecord) == 12 && offsetof(GlobalRecord, segment) == 10);

// ---- C13 subsections

struct SubsectionHeader {
  le_int32 sig;
  le_uint32 size;  // bytes of payload
};
static_assert(sizeof(SubsectionHeader) == 8);

enum SubsectionKind : int32_t {
  kLinesSubsection = 0xF2,
  kFileChecksumsSubsection = 0xF4,
  kInlineeLinesSubsection = 0xF6,
  kImportsSubsection = 0xF7,  // items of other modules
  kExportsSubsection = 0xF8,  // items for other modules
};

// Fixed head of an entry of the file checksums; `len` bytes of checksum follow, then padding to a
// multiple of 4 of the stream offset.
struct CVFileChecksum {
  le_uint32 name;  // offset of the path in the /NAMES string area
  uint8_t len;
  uint8_t type;
};
static_assert(sizeof(CVFileChecksum) == 6);

// Head of a lines subsection.
struct CV_LineSection {
  le_uint32 off;  // section-relative start of the code
  le_uint16 sec;  // section number from 1
  le_uint16 flags;
  le_uint32 cod;  // bytes of code
};
static_assert(sizeof(CV_LineSection) == 12);

// Head of one file's lines; `count` CV_Line follow.
struct CV_SourceFile {
  le_uint32 index;  // offset of the file's entry in the module's file checksums
  le_uint32 count;
  le_uint32 linsiz;
};
static_assert(sizeof(CV_SourceFile) == 12);

struct CV_Line {
  le_uint32 offset;  // bytes from the start of the block
  le_uint32 flags;   // line number in the low 24 bits
};
static_assert(sizeof(CV_Line) == 8 && alignof(CV_Line) == 1);

// An entry of the inlinee lines.
struct CV_TagInlineeSourceLine {
  le_uint32 inlinee;
  le_uint32 file_id;
  le_uint32 source_line;
};
static_assert(sizeof(CV_TagInlineeSourceLine) == 12);

// Head of the items that are imported from one module; `count` of their numbers there follow.
struct CV_CrossScopeImports {
  le_uint32 module;  // offset of its name in the /NAMES string area
  le_uint32 count;
};
static_assert(sizeof(CV_CrossScopeImports) == 8);

// An exported item: its number for other modules and its index in the PDB.
struct CV_CrossScopeExport {
  le_uint32 local;
  le_uint32 global;
};
static_assert(sizeof(CV_CrossScopeExport) == 8);

// ---- Types

struct OffCb {
  le_int32 off;
  le_int32 cb;
};

// Start of the type and id streams; the records follow.
struct TypeInfoHeader {
  le_uint32 version;
  le_int32 headerSize;
  le_uint32 min;  // index of the first record
  le_uint32 max;  // index one past the last record
  le_uint32 followSize;
  le_uint16 sn;
  le_uint16 padding;
  le_int32 hashKey;
  le_int32 buckets;
  OffCb hashVals;
  OffCb tiOff;
  OffCb hashAdjust;
};
static_assert(sizeof(TypeInfoHeader) == 56 && offsetof(TypeInfoHeader, max) == 12);

struct TypeRecord {
  le_uint16 length;  // bytes after this field
  le_uint16 leafType;
};
static_assert(sizeof(TypeRecord) == 4);

namespace LEAF {
enum Enum : uint16_t {
  LF_MODIFIER = 0x1001,
  LF_POINTER = 0x1002,
  LF_PROCEDURE = 0x1008,
  LF_MFUNCTION = 0x1009,
  LF_ARGLIST = 0x1201,
  LF_INDEX = 0x1404,
  LF_TYPESERVER = 0x1501,
  LF_ARRAY = 0x1503,
  LF_CLASS = 0x1504,
  LF_STRUCTURE = 0x1505,
  LF_UNION = 0x1506,
  LF_ENUM = 0x1507,
  LF_ALIAS = 0x150A,
  LF_TYPESERVER2 = 0x1515,
  LF_FUNC_ID = 0x1601,
  LF_MFUNC_ID = 0x1602,
  LF_SUBSTR_LIST = 0x1604,
  LF_STRING_ID = 0x1605,
  LF_CHAR = 0x8000,
  LF_SHORT = 0x8001,
  LF_USHORT = 0x8002,
  LF_LONG = 0x8003,
  LF_ULONG = 0x8004,
  LF_REAL32 = 0x8005,
  LF_REAL64 = 0x8006,
  LF_REAL80 = 0x8007,
  LF_REAL128 = 0x8008,
  LF_QUADWORD = 0x8009,
  LF_UQUADWORD = 0x800A,
  LF_LAST_NUMERIC = 0x801B,
};
}  // namespace LEAF

// The fixed parts of the leaves, which follow the TypeRecord.
struct LeafModifier {
  static constexpr uint16_t kConst = 1;
  static constexpr uint16_t kVolatile = 2;
  static constexpr uint16_t kUnaligned = 4;

  le_uint32 type;
  le_uint16 attr;
};
struct LeafPointer {
  enum Mode : uint32_t { kPointer, kReference, kMember, kMemberFunction, kRvalueReference };
  static constexpr uint32_t kLastMode = kRvalueReference;  // others are unknown
  static constexpr uint32_t kVolatile = 0x200;
  static constexpr uint32_t kConst = 0x400;

  le_uint32 utype;
  le_uint32 attr;

  uint32_t mode() const { return attr >> 5 & 7; }
};
// References to the file that has the types; the NUL-terminated path follows.
struct LeafTypeServer {
  le_uint32 signature;
  le_uint32 age;
};
struct LeafTypeServer2 {
  uint8_t guid[16];
  le_uint32 age;
};
struct LeafArray {
  le_uint32 elemtype;
  le_uint32 idxtype;
};
struct LeafProc {
  le_uint32 rvtype;
  uint8_t calltype;
  uint8_t reserved;
  le_uint16 parmcount;
  le_uint32 arglist;
};
struct LeafMFunc {
  le_uint32 rvtype;
  le_uint32 classtype;
  le_uint32 thistype;
  uint8_t calltype;
  uint8_t reserved;
  le_uint16 parmcount;
  le_uint32 arglist;
  le_int32 thisadjust;
};
struct LeafFuncID {
  le_uint32 scope_id;
  le_uint32 type;
};
// The name follows.
struct LeafMFuncID {
  le_uint32 classtype;
  le_uint32 type;
};
// The text follows; `substrings` is 0 or the LF_SUBSTR_LIST of what precedes it.
struct LeafStringID {
  le_uint32 substrings;
};
// `count` type indices follow.
struct LeafArgList {
  le_uint32 count;
};
// Of LF_CLASS and LF_STRUCTURE; the name follows, if `size` has its short form of 2 bytes.
struct LeafClass {
  le_uint16 count;
  le_uint16 property;
  le_uint32 field;
  le_uint32 derived;
  le_uint32 vshape;
  le_uint16 size;
};
// The name follows, as after a LeafClass.
struct LeafUnion {
  le_uint16 count;
  le_uint16 property;
  le_uint32 field;
  le_uint16 size;
};
// The name follows.
struct LeafEnum {
  le_uint16 count;
  le_uint16 property;
  le_uint32 utype;
  le_uint32 field;
};
// The name follows.
struct LeafAlias {
  le_uint32 utype;
};
struct LeafIndex {
  le_uint16 pad0;
  le_uint32 index;
};
static_assert(sizeof(LeafModifier) == 6 && sizeof(LeafPointer) == 8 && sizeof(LeafArray) == 8);
static_assert(sizeof(LeafProc) == 12 && sizeof(LeafMFunc) == 24 && sizeof(LeafFuncID) == 8);
static_assert(sizeof(LeafMFuncID) == 8 && sizeof(LeafStringID) == 4);
static_assert(sizeof(LeafIndex) == 6 && sizeof(LeafArgList) == 4 && sizeof(LeafClass) == 18);
static_assert(sizeof(LeafUnion) == 10 && sizeof(LeafEnum) == 12 && sizeof(LeafAlias) == 4);

}  // namespace symforge_internal
