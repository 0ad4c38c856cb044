// ARM64EC and ARM64X images: code for x64 and for ARM64 in one image. Their load configuration
// leads to metadata (CHPE, "compiled hybrid portable executable") with a map of the code and a
// second table of unwind data.

#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "symforge/src/WinStructs.h"
#include "symforge/src/pe/cfi_rows.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

struct HybridCode {
  std::vector<CodeRange> arm64;  // also code of the ARM64EC ABI; ascending, without overlap
  std::vector<CodeRange> x64;    // likewise
  // The unwind data of the machine that the header does not name. Not checked. `Size` 0: none.
  IMAGE_DATA_DIRECTORY extra_table{};
};

enum class HybridStatus : uint8_t {
  kNone,     // an image for one machine
  kHybrid,   // the map was read
  kDamaged,  // there is metadata that makes no sense: nothing is known about the code
};

// `image` must have the NT headers of a PE32+ image. `code` is filled after kHybrid only. Nothing
// outside of the image is read. Throws std::bad_alloc.
HybridStatus readHybridCode(const PeImage& image, HybridCode& code);

// The parts of `functions`, which ascend by begin, that are in `ranges`, which ascend and do not
// overlap. The result ascends and has no overlaps. Throws std::bad_alloc.
std::vector<CodeRange> partsInRanges(std::span<const CodeRange> functions,
                                     std::span<const CodeRange> ranges);

// Whether `address` is in one of `ranges`, which ascend and do not overlap.
bool isInRanges(uint32_t address, std::span<const CodeRange> ranges);

}  // namespace symforge_internal
