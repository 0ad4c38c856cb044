#include "symforge/src/pe/arm64_unwind_entry.h"

#include "symforge/src/pe/arm64_packed_unwind.h"

namespace symforge_internal {

// A search for an RVA runs over the sections, of which Windows loads 96 at most.
Arm64UnwindEntry::Arm64UnwindEntry(const PeImage& image)
    : image_(image), lookup_cost_(1 + image.ntHeaders()->FileHeader.NumberOfSections / 16) {}

Arm64Status Arm64UnwindEntry::read(const Arm64RuntimeFunction& entry) {
  length_ = 0;
  epilog_count_ = 0;
  epilog_codes_ = kNoCodes;
  single_epilog_ = false;
  scopes_ = {};
  switch (entry.flag()) {
    case Arm64RuntimeFunction::kUnpacked:
      return readRecord(entry.UnwindData);
    case Arm64RuntimeFunction::kPackedFunction:
    case Arm64RuntimeFunction::kPackedFragment:
      return readPacked(entry);
    default:
      return Arm64Status::kUnsupported;
  }
}

Arm64Status Arm64UnwindEntry::readPacked(const Arm64RuntimeFunction& entry) {
  const Arm64PackedUnwind packed{entry.UnwindData};
  const bool is_fragment = entry.flag() == Arm64RuntimeFunction::kPackedFragment;
  length_ = packed.length();
  if (length_ == 0) return Arm64Status::kMalformed;
  const Arm64Status status = expandArm64Packed(packed, is_fragment, prolog_, epilog_);
  decoded_codes_ += prolog_.effects.size() + 1;
  if (status != Arm64Status::kOk) return status;
  single_epilog_ = !is_fragment;
  single_codes_ = 0;
  epilog_codes_ = 0;
  epilog_count_ = single_epilog_ ? 1 : 0;
  return prolog_.instructions <= length_ ? Arm64Status::kOk : Arm64Status::kMalformed;
}

Arm64Status Arm64UnwindEntry::readRecord(uint32_t rva) {
  decoded_codes_ += lookup_cost_;
  const uint8_t* bytes = image_.ImageRvaToVa(rva);
  const size_t left = bytes == nullptr ? 0 : image_.bytesLeft(bytes);
  if (left < sizeof(Arm64XdataHeader)) return Arm64Status::kMalformed;
  const auto* header = reinterpret_cast<const Arm64XdataHeader*>(bytes);
  length_ = header->length();
  if (header->version() != 0) return Arm64Status::kUnsupported;

  size_t head_bytes = sizeof(Arm64XdataHeader);
  size_t epilogs = header->epilogCount();
  size_t code_words = header->codeWords();
  if (header->isExtended()) {
    head_bytes += sizeof(Arm64XdataExtension);
    if (left < head_bytes) return Arm64Status::kMalformed;
    const auto* extension = reinterpret_cast<const Arm64XdataExtension*>(header + 1);
    epilogs = extension->epilogCount();
    code_words = extension->codeWords();
  }
  single_epilog_ = header->hasSingleEpilog();
  single_codes_ = epilogs;
  const size_t scopes = single_epilog_ ? 0 : epilogs;
  // Each epilog has an instruction at least.
  if (scopes > length_) return Arm64Status::kMalformed;
  const size_t codes_at = head_bytes + scopes * sizeof(Arm64EpilogScope);
  if (left < codes_at + code_words * 4) return Arm64Status::kMalformed;
  scopes_ = {reinterpret_cast<const Arm64EpilogScope*>(bytes + head_bytes), scopes};
  codes_ = {bytes + codes_at, code_words * 4};
  epilog_count_ = single_epilog_ ? 1 : scopes;

  const Arm64Status status = decode(0, prolog_);
  if (status != Arm64Status::kOk) return status;
  const bool fits = length_ != 0 && prolog_.instructions <= length_;
  return fits ? Arm64Status::kOk : Arm64Status::kMalformed;
}

Arm64Status Arm64UnwindEntry::decode(size_t code_index, Arm64Sequence& out) {
  const Arm64Status status = decodeArm64Codes(codes_, code_index, out);
  decoded_codes_ += out.effects.size() + 1;
  return status;
}

Arm64Status Arm64UnwindEntry::selectEpilog(size_t index) {
  const bool scoped = !single_epilog_;
  if (scoped && scopes_[index].reserved() != 0) return Arm64Status::kUnsupported;
  const size_t code_index = scoped ? scopes_[index].codeIndex() : single_codes_;
  if (code_index != epilog_codes_) {
    epilog_codes_ = kNoCodes;
    const Arm64Status status = decode(code_index, epilog_);
    if (status != Arm64Status::kOk) return status;
    epilog_codes_ = code_index;
  }
  const uint32_t instructions = epilogInstructions();
  if (instructions > length_) return Arm64Status::kMalformed;
  epilog_start_ = scoped ? scopes_[index].start() : length_ - instructions;
  const bool inside = epilog_start_ >= prolog_.instructions && epilogEnd() <= length_;
  return inside ? Arm64Status::kOk : Arm64Status::kMalformed;
}

}  // namespace symforge_internal
