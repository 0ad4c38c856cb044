#include "symforge/src/driver/file_kind.h"

#include <unistd.h>

#include <cstdint>

#include "base/file_io.h"

namespace symforge_internal {

using namespace std::string_view_literals;

namespace {

struct Signature {
  std::string_view bytes;
  FileKind kind;
};

constexpr Signature kSignatures[] = {
    {"MODULE"sv, FileKind::kSymbolText},
    {"SYMB"sv, FileKind::kSymb},
    {"Microsoft C/C++ MSF 7.00\r\n\x1A\x44\x53\0\0\0"sv, FileKind::kPdb},
    {"Microsoft MSFZ Container"sv, FileKind::kCompressedPdb},
    {"BSJB"sv, FileKind::kPortablePdb},
    {"Microsoft C/C++ program database 2.00\r\n"sv, FileKind::kPdb2},
    {"MZ"sv, FileKind::kImage},
    {"PK\x03\x04"sv, FileKind::kZip},
    {"PK\x05\x06"sv, FileKind::kZip},  // without entries
    {"PK\x07\x08"sv, FileKind::kZip},  // in several parts
    {"MSCF\0\0\0\0"sv, FileKind::kCab},
    {"\x1F\x8B"sv, FileKind::kGzip},
    {"\x28\xB5\x2F\xFD"sv, FileKind::kZstd},
    {"\x7F"
     "ELF"sv,
     FileKind::kElf},
    {"\xFE\xED\xFA\xCE"sv, FileKind::kMachO},
    {"\xFE\xED\xFA\xCF"sv, FileKind::kMachO},
    {"\xCE\xFA\xED\xFE"sv, FileKind::kMachO},
    {"\xCF\xFA\xED\xFE"sv, FileKind::kMachO},
};

// A Mach-O file for several machines. Java classes begin with the same four bytes; in place of the
// number of machines they have a version, which is at least 45.
bool is_universal_mach_o(std::string_view start) {
  constexpr uint8_t kFirstClassVersion = 45;
  if (start.size() < 8) return false;
  const bool known =
      start.starts_with("\xCA\xFE\xBA\xBE"sv) || start.starts_with("\xCA\xFE\xBA\xBF"sv);
  return known && start.substr(4, 3) == "\0\0\0"sv &&
         static_cast<uint8_t>(start[7]) < kFirstClassVersion;
}

}  // namespace

FileKind file_kind(std::string_view start) {
  for (const Signature& signature : kSignatures) {
    if (start.starts_with(signature.bytes)) return signature.kind;
  }
  return is_universal_mach_o(start) ? FileKind::kMachO : FileKind::kUnknown;
}

FileKind kind_of_file(const char* path) {
  const FileDescriptor file(open_regular(path));
  char start[kFileKindBytes];
  const ssize_t size = file.is_open() ? pread(file.get(), start, sizeof start, 0) : -1;
  return size < 0 ? FileKind::kUnknown : file_kind({start, static_cast<size_t>(size)});
}

const char* kind_name(FileKind kind) {
  switch (kind) {
    case FileKind::kUnknown:
      return "unknown";
    case FileKind::kSymbolText:
      return "symbol_text";
    case FileKind::kSymb:
      return "symb";
    case FileKind::kPdb:
      return "pdb";
    case FileKind::kImage:
      return "image";
    case FileKind::kCompressedPdb:
      return "compressed_pdb";
    case FileKind::kPortablePdb:
      return "portable_pdb";
    case FileKind::kPdb2:
      return "pdb_2.00";
    case FileKind::kZip:
      return "zip";
    case FileKind::kCab:
      return "cab";
    case FileKind::kGzip:
      return "gzip";
    case FileKind::kZstd:
      return "zstd";
    case FileKind::kElf:
      return "elf";
    case FileKind::kMachO:
      return "mach_o";
  }
  return "unknown";
}

const char* refusal_of(FileKind kind) {
  switch (kind) {
    case FileKind::kUnknown:
    case FileKind::kSymbolText:
    case FileKind::kSymb:
    case FileKind::kPdb:
      return nullptr;
    case FileKind::kImage:
      return "this is an image (exe or dll); give its PDB as the input, and the image with -e";
    case FileKind::kCompressedPdb:
      return "this is a compressed PDB (MSFZ container); expand it to an MSF 7.00 PDB first";
    case FileKind::kPortablePdb:
      return "this is a portable PDB, of managed code only; it has no native functions to convert";
    case FileKind::kPdb2:
      return "this is a PDB of the old format 2.00; link the program again with Visual C++ 7.0 or "
             "newer";
    case FileKind::kZip:
      return "this is a zip archive; extract it and convert the files in it";
    case FileKind::kCab:
      return "this is a cabinet file; extract it and convert the files in it";
    case FileKind::kGzip:
      return "this is a gzip file; decompress it first";
    case FileKind::kZstd:
      return "this is a zstd file; decompress it first";
    case FileKind::kElf:
      return "this is an ELF file, not of Windows; make its symbol file with a tool that reads "
             "DWARF";
    case FileKind::kMachO:
      return "this is a Mach-O file, not of Windows; make its symbol file with a tool that reads "
             "DWARF";
  }
  return nullptr;
}

}  // namespace symforge_internal
