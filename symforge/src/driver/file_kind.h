// What kind of file an input is, by its first bytes: what symforge converts, and what users take
// for that.

#pragma once

#include <cstddef>
#include <string_view>

namespace symforge_internal {

enum class FileKind {
  kUnknown,
  kSymbolText,  // a Breakpad text symbol file
  kSymb,
  kPdb,  // MSF 7.00, native or managed
  kImage,
  // Cannot be converted:
  kCompressedPdb,  // MSFZ
  kPortablePdb,
  kPdb2,  // PDB 2.00
  kZip,
  kCab,
  kGzip,
  kZstd,
  kElf,
  kMachO,
};

// The number of first bytes that decide.
inline constexpr size_t kFileKindBytes = 64;

// `start`: the first kFileKindBytes bytes of the file, or all of a shorter one.
FileKind file_kind(std::string_view start);

// The same for a file. kUnknown for what is no regular file or cannot be read.
FileKind kind_of_file(const char* path);

// A short name for programs, such as "portable_pdb".
const char* kind_name(FileKind kind);

// Why a file of that kind is not converted when it is the input, and what to do: one line without
// line end. Null for kinds that are converted, and for unknown ones.
const char* refusal_of(FileKind kind);

}  // namespace symforge_internal
