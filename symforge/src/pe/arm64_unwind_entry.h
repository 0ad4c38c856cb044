// One ARM64 unwind entry, packed or with an .xdata record: its code, its prolog and its epilogs.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "symforge/src/pe/arm64_unwind_codes.h"
#include "symforge/src/pe/arm64_unwind_records.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

// Reads entries of one image, one after the other, with memory that is used again. The image must
// have NT headers and outlive it. Nothing outside of the image is read. Offsets and lengths are in
// instructions.
class Arm64UnwindEntry {
 public:
  explicit Arm64UnwindEntry(const PeImage& image);

  // Reads an entry up to its prolog. length() is known after kOk, and also after other results
  // unless it is 0. Throws std::bad_alloc.
  Arm64Status read(const Arm64RuntimeFunction& entry);

  uint32_t length() const { return length_; }
  const Arm64Sequence& prolog() const { return prolog_; }

  size_t epilogCount() const { return epilog_count_; }

  // Selects an epilog, in the order of the record; checks that it is inside of the function and
  // does not overlap the prolog. Throws std::bad_alloc.
  Arm64Status selectEpilog(size_t index);

  // The selected epilog, with the return or jump that ends it.
  uint32_t epilogStart() const { return epilog_start_; }
  uint32_t epilogEnd() const { return epilog_start_ + epilogInstructions(); }
  const Arm64Sequence& epilog() const { return epilog_; }
  // A number for the codes of the selected epilog: the same for epilogs with the same sequence.
  size_t epilogCodes() const { return epilog_codes_; }

  // Codes that were decoded so far, for all entries. A search for a record counts as one or more.
  uint64_t decodedCodes() const { return decoded_codes_; }

 private:
  static constexpr size_t kNoCodes = SIZE_MAX;

  uint32_t epilogInstructions() const {
    return static_cast<uint32_t>(epilog_.epilogInstructions());
  }
  Arm64Status readPacked(const Arm64RuntimeFunction& entry);
  Arm64Status readRecord(uint32_t rva);
  Arm64Status decode(size_t code_index, Arm64Sequence& out);

  const PeImage& image_;
  uint64_t lookup_cost_;
  uint32_t length_ = 0;
  std::span<const uint8_t> codes_;
  std::span<const Arm64EpilogScope> scopes_;
  bool single_epilog_ = false;  // at the function's end, without a scope
  size_t single_codes_ = 0;     // index of its codes
  size_t epilog_count_ = 0;
  Arm64Sequence prolog_;
  Arm64Sequence epilog_;
  size_t epilog_codes_ = kNoCodes;
  uint32_t epilog_start_ = 0;
  uint64_t decoded_codes_ = 0;
};

}  // namespace symforge_internal
