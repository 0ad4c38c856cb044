#include "symforge/src/pe/hybrid_code.h"

#include <algorithm>
#include <cstddef>

namespace symforge_internal {

namespace {

// IMAGE_LOAD_CONFIG_DIRECTORY64, as far as it is needed. An image may have less of it.
struct LoadConfig {
  le_uint32 Size;  // bytes of the record in this image
  uint8_t unused[196];
  LittleEndian<uint64_t> CHPEMetadataPointer;  // absolute
};
static_assert(sizeof(LoadConfig) == 208 && offsetof(LoadConfig, CHPEMetadataPointer) == 200);

struct ChpeMetadata {
  le_uint32 Version;
  le_uint32 CodeMap;  // RVA
  le_uint32 CodeMapCount;
  uint8_t unused[52];
  IMAGE_DATA_DIRECTORY ExtraRfeTable;  // "runtime function entries"
};
static_assert(sizeof(ChpeMetadata) == 72 && offsetof(ChpeMetadata, ExtraRfeTable) == 64);

struct CodeMapEntry {
  enum Kind : uint32_t { kArm64 = 0, kArm64Ec = 1, kX64 = 2 };

  le_uint32 StartOffset;  // RVA, with the kind in the low two bits
  le_uint32 Length;       // bytes

  uint32_t kind() const { return StartOffset & 3; }
  CodeRange range() const { return {StartOffset & ~3U, Length}; }
};
static_assert(sizeof(CodeMapEntry) == 8);

// False: not a map of code.
bool readCodeMap(const PeImage& image, const ChpeMetadata& metadata, HybridCode& code) {
  const uint64_t size = uint64_t{metadata.CodeMapCount} * sizeof(CodeMapEntry);
  const uint8_t* bytes = image.bytesAt(metadata.CodeMap, size);
  if (bytes == nullptr) return false;
  const std::span entries(reinterpret_cast<const CodeMapEntry*>(bytes), metadata.CodeMapCount);
  uint64_t done = 0;
  for (const CodeMapEntry& entry : entries) {
    const CodeRange range = entry.range();
    if (range.begin < done || entry.kind() > CodeMapEntry::kX64) return false;
    done = range.end();
    (entry.kind() == CodeMapEntry::kX64 ? code.x64 : code.arm64).push_back(range);
  }
  return !entries.empty();
}

}  // namespace

HybridStatus readHybridCode(const PeImage& image, HybridCode& code) {
  const auto& header = image.ntHeaders()->OptionalHeader;
  const IMAGE_DATA_DIRECTORY& directory = header.DataDirectory[IMAGE_DIRECTORY_ENTRY_LOAD_CONFIG];
  if (directory.VirtualAddress == 0) return HybridStatus::kNone;
  // Older images have a shorter record.
  const auto* size = image.recordAt<le_uint32>(directory.VirtualAddress);
  if (size == nullptr) return HybridStatus::kDamaged;
  if (*size < sizeof(LoadConfig)) return HybridStatus::kNone;
  const auto* config = image.recordAt<LoadConfig>(directory.VirtualAddress);
  if (config == nullptr) return HybridStatus::kDamaged;
  const uint64_t pointer = config->CHPEMetadataPointer;
  if (pointer == 0) return HybridStatus::kNone;
  const uint64_t rva = pointer - header.ImageBase;
  if (rva > UINT32_MAX) return HybridStatus::kDamaged;
  const auto* metadata = image.recordAt<ChpeMetadata>(static_cast<uint32_t>(rva));
  if (metadata == nullptr || !readCodeMap(image, *metadata, code)) return HybridStatus::kDamaged;
  code.extra_table = metadata->ExtraRfeTable;
  return HybridStatus::kHybrid;
}

std::vector<CodeRange> partsInRanges(std::span<const CodeRange> functions,
                                     std::span<const CodeRange> ranges) {
  std::vector<CodeRange> parts;
  uint64_t done = 0;  // end of the last function
  auto range = ranges.begin();
  for (const CodeRange& function : functions) {
    uint64_t from = std::max<uint64_t>(function.begin, done);
    done = std::max(done, function.end());
    while (from < function.end()) {
      while (range != ranges.end() && range->end() <= from) ++range;
      if (range == ranges.end() || range->begin >= function.end()) break;
      from = std::max<uint64_t>(from, range->begin);
      const uint64_t to = std::min(function.end(), range->end());
      if (from < to) {
        parts.push_back({static_cast<uint32_t>(from), static_cast<uint32_t>(to - from)});
      }
      from = to;
    }
  }
  return parts;
}

bool isInRanges(uint32_t address, std::span<const CodeRange> ranges) {
  const auto next =
      std::upper_bound(ranges.begin(), ranges.end(), address,
                       [](uint32_t at, const CodeRange& range) { return at < range.begin; });
  return next != ranges.begin() && address < (next - 1)->end();
}

}  // namespace symforge_internal
