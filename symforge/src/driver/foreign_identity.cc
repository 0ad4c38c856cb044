#include "symforge/src/driver/foreign_identity.h"

#include <cstdint>
#include <cstring>
#include <optional>

#include "symforge/src/PDBHeaders.h"
#include "symforge/src/pdb/debug_id.h"

namespace symforge_internal {

namespace {

// A record at `offset`, if it is in the bytes.
template <typename Record>
std::optional<Record> record_at(std::string_view bytes, size_t offset) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof(Record)) return std::nullopt;
  Record record;
  std::memcpy(&record, bytes.data() + offset, sizeof(record));
  return record;
}

size_t aligned(size_t offset) { return (offset + 3) / 4 * 4; }

// A number of the byte order that the file has.
uint32_t ordered(uint32_t little_endian, bool big) {
  return big ? __builtin_bswap32(little_endian) : little_endian;
}

// A header of the metadata root; the NUL-terminated name follows, padded to a multiple of 4.
struct MetadataStream {
  le_uint32 offset;  // from the start of the file
  le_uint32 size;
};

constexpr uint32_t kMachO64 = 0x01000000;

}  // namespace

std::string portable_pdb_id(std::string_view start) {
  constexpr size_t kVersionLength = 12;
  constexpr uint32_t kMaxVersion = 255;
  constexpr std::string_view kPdbStream = "#Pdb";
  const auto length = record_at<le_uint32>(start, kVersionLength);
  if (!length || *length > kMaxVersion) return {};
  const size_t counts = aligned(kVersionLength + sizeof(le_uint32) + *length);
  const auto streams = record_at<le_uint16>(start, counts + sizeof(le_uint16));
  size_t at = counts + 2 * sizeof(le_uint16);
  for (uint16_t i = 0; streams && i < *streams; ++i) {
    const auto header = record_at<MetadataStream>(start, at);
    if (!header) return {};
    std::string_view name = start.substr(at + sizeof(MetadataStream));
    name = name.substr(0, name.find('\0'));
    if (name == kPdbStream) {
      const auto guid = record_at<GUID>(start, header->offset);
      return guid ? formatDebugId(*guid, 1) : std::string();
    }
    at += sizeof(MetadataStream) + aligned(name.size() + 1);
  }
  return {};
}

std::string elf_architecture(std::string_view start) {
  constexpr size_t kByteOrder = 5;
  constexpr size_t kMachine = 18;
  constexpr char kBigEndian = 2;
  const auto machine = record_at<le_uint16>(start, kMachine);
  if (!machine) return {};
  const bool big = start[kByteOrder] == kBigEndian;
  switch (ordered(*machine, big) >> (big ? 16 : 0)) {
    case 3:
      return "x86";
    case 20:
      return "ppc";
    case 21:
      return "ppc64";
    case 40:
      return "arm";
    case 62:
      return "x86_64";
    case 183:
      return "arm64";
    case 243:
      return "riscv";
    default:
      return {};
  }
}

std::string mach_o_architecture(std::string_view start) {
  constexpr size_t kCpuType = 4;
  const auto type = record_at<le_uint32>(start, kCpuType);
  if (!type || start.starts_with("\xCA\xFE")) return {};  // of several machines
  switch (ordered(*type, start.starts_with("\xFE\xED"))) {
    case 7:
      return "x86";
    case 7 | kMachO64:
      return "x86_64";
    case 12:
      return "arm";
    case 12 | kMachO64:
      return "arm64";
    case 18:
      return "ppc";
    case 18 | kMachO64:
      return "ppc64";
    default:
      return {};
  }
}

}  // namespace symforge_internal
