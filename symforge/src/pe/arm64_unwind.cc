#include "symforge/src/pe/arm64_unwind.h"

#include <algorithm>
#include <vector>

#include "symforge/src/pe/arm64_frame.h"
#include "symforge/src/pe/arm64_unwind_entry.h"

namespace symforge_internal {

namespace {

using google_breakpad::PeImage;

// Limits for one image: a fixed part, and one in proportion to the file.
constexpr uint64_t kFewestCodes = uint64_t{1} << 20;
constexpr uint64_t kCodesPerFileByte = 2;
constexpr uint64_t kFewestRows = uint64_t{1} << 16;
constexpr uint64_t kFileBytesPerRow = kArm64InstructionBytes;

// Bytes from the headers, which are at the begin of a file, to its end.
uint64_t fileBytes(const PeImage& image) {
  return image.bytesLeft(reinterpret_cast<const uint8_t*>(image.ntHeaders()));
}

class Arm64UnwindPrinter {
 public:
  Arm64UnwindPrinter(const PeImage& image, std::span<const Arm64RuntimeFunction> table,
                     std::span<const CodeRange> functions, TextBuffer& out)
      : table_(table),
        functions_(functions),
        entry_(image),
        cfi_(out, arm64Cfi(), functions),
        image_end_(image.ntHeaders()->OptionalHeader.SizeOfImage),
        most_codes_(kFewestCodes + kCodesPerFileByte * fileBytes(image)),
        rows_left_(kFewestRows + fileBytes(image) / kFileBytesPerRow) {}

  Arm64UnwindReport print() {
    for (size_t i = 0; i < table_.size(); ++i) {
      if (table_[i].BeginAddress == 0 && table_[i].UnwindData == 0) continue;
      printEntry(i);
    }
    cfi_.finish();
    return report_;
  }

 private:
  void printEntry(size_t index) {
    const uint32_t begin = table_[index].BeginAddress;
    Arm64Status status = Arm64Status::kMalformed;
    if (!report_.limit_reached) status = check(table_[index]);
    const uint64_t size = uint64_t{entry_.length()} * kArm64InstructionBytes;
    if (status == Arm64Status::kOk && begin + size > image_end_) status = Arm64Status::kMalformed;
    if (report_.limit_reached || status != Arm64Status::kOk) {
      leaveOut(index, status);
    } else if (!cfi_.claim({begin, static_cast<uint32_t>(size)})) {
      ++report_.overlapping;
    } else {
      ++report_.described;
      writeProlog(begin);
      for (size_t i = 0; i < entry_.epilogCount(); ++i) writeEpilog(begin, i);
    }
  }

  // The code of an entry without rules is no leaf function: it is claimed, as far as it is known.
  void leaveOut(size_t index, Arm64Status status) {
    if (status == Arm64Status::kUnsupported) {
      ++report_.unsupported;
    } else if (!report_.limit_reached) {
      ++report_.malformed;
    }
    const uint32_t begin = table_[index].BeginAddress;
    const bool has_length = !report_.limit_reached && entry_.length() != 0;
    uint64_t end = begin + uint64_t{entry_.length()} * kArm64InstructionBytes;
    if (!has_length || end > image_end_) end = endOfFunction(begin);
    const bool has_next = index + 1 < table_.size() && table_[index + 1].BeginAddress > begin;
    if (has_next) end = std::min<uint64_t>(end, table_[index + 1].BeginAddress);
    cfi_.claim({begin, static_cast<uint32_t>(end - begin)});
  }

  // The end of the function that contains `rva`, or of one instruction.
  uint64_t endOfFunction(uint32_t rva) const {
    const auto next =
        std::upper_bound(functions_.begin(), functions_.end(), rva,
                         [](uint32_t at, const CodeRange& range) { return at < range.begin; });
    const bool inside = next != functions_.begin() && rva < (next - 1)->end();
    return inside ? std::min<uint64_t>((next - 1)->end(), UINT32_MAX)
                  : uint64_t{rva} + kArm64InstructionBytes;
  }

  // Reads the entry and all that belongs to it, so that nothing is written of one that is wrong.
  Arm64Status check(const Arm64RuntimeFunction& record) {
    Arm64Status status = entry_.read(record);
    uint64_t rows = status == Arm64Status::kOk ? entry_.prolog().instructions + 1 : 0;
    uint32_t done = 0;
    for (size_t i = 0; status == Arm64Status::kOk && i < entry_.epilogCount(); ++i) {
      status = entry_.selectEpilog(i);
      if (status != Arm64Status::kOk) break;
      if (entry_.epilogStart() < done) return Arm64Status::kMalformed;
      done = entry_.epilogEnd();
      rows += entry_.epilogEnd() - entry_.epilogStart() + 1;
      if (entry_.decodedCodes() > most_codes_) break;
    }
    report_.limit_reached = entry_.decodedCodes() > most_codes_ || rows > rows_left_;
    if (status == Arm64Status::kOk && !report_.limit_reached) rows_left_ -= rows;
    return status;
  }

  void writeProlog(uint32_t begin) {
    const Arm64Sequence& prolog = entry_.prolog();
    frame_.reset();
    size_t i = prolog.effects.size();
    while (i > prolog.instructions) frame_.add(prolog.effects[--i]);
    cfi_.start(frame_.rules());
    while (i > 0) {
      frame_.add(prolog.effects[--i]);
      begin += kArm64InstructionBytes;
      cfi_.change(begin, frame_.rules());
    }
    body_ = frame_.rules();
    rows_of_ = SIZE_MAX;
  }

  void writeEpilog(uint32_t begin, size_t index) {
    entry_.selectEpilog(index);
    if (entry_.epilogCodes() != rows_of_) makeEpilogRows();
    uint32_t address = begin + entry_.epilogStart() * kArm64InstructionBytes;
    for (auto row = epilog_rows_.rbegin(); row != epilog_rows_.rend(); ++row) {
      cfi_.change(address, *row);
      address += kArm64InstructionBytes;
    }
    cfi_.change(address, body_);
  }

  // From the last instruction, which returns, backwards to the first.
  void makeEpilogRows() {
    const Arm64Sequence& epilog = entry_.epilog();
    rows_of_ = entry_.epilogCodes();
    epilog_rows_.clear();
    frame_.reset();
    size_t i = epilog.effects.size();
    while (i > epilog.instructions) frame_.add(epilog.effects[--i]);
    if (!epilog.has_end_c) epilog_rows_.push_back(frame_.rules());
    while (i > 0) {
      frame_.add(epilog.effects[--i]);
      epilog_rows_.push_back(frame_.rules());
    }
  }

  std::span<const Arm64RuntimeFunction> table_;
  std::span<const CodeRange> functions_;
  Arm64UnwindEntry entry_;
  CfiWriter cfi_;
  uint64_t image_end_;
  uint64_t most_codes_;
  uint64_t rows_left_;
  Arm64Frame frame_;
  CfiRules body_;
  std::vector<CfiRules> epilog_rows_;
  size_t rows_of_ = SIZE_MAX;  // the codes that they were made of
  Arm64UnwindReport report_;
};

}  // namespace

Arm64UnwindReport printArm64Unwind(const PeImage& image, uint32_t table, uint32_t table_bytes,
                                   std::span<const CodeRange> functions, TextBuffer& out) {
  const uint8_t* bytes = table_bytes == 0 ? nullptr : image.bytesAt(table, table_bytes);
  if (bytes == nullptr && table_bytes != 0) {
    Arm64UnwindReport report;
    report.table_cut_short = true;
    return report;
  }
  const std::span entries(reinterpret_cast<const Arm64RuntimeFunction*>(bytes),
                          table_bytes / sizeof(Arm64RuntimeFunction));
  return Arm64UnwindPrinter(image, entries, functions, out).print();
}

}  // namespace symforge_internal
