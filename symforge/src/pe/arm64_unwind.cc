#include "symforge/src/pe/arm64_unwind.h"

#include <algorithm>
#include <vector>

#include "symforge/src/pe/arm64_frame.h"
#include "symforge/src/pe/arm64_unwind_entry.h"

namespace symforge_internal {

namespace {

// Bytes from the headers, which are at the start of the file, to its end.
uint64_t fileBytes(const PeImage& image) {
  return image.bytesLeft(reinterpret_cast<const uint8_t*>(image.ntHeaders()));
}

class Arm64UnwindWriter {
 public:
  Arm64UnwindWriter(const PeImage& image, std::span<const Arm64RuntimeFunction> table,
                    std::span<const CodeRange> functions, TextBuffer& out)
      : table_(table),
        functions_(functions),
        entry_(image),
        cfi_(out, arm64Cfi(), functions),
        image_end_(image.ntHeaders()->OptionalHeader.SizeOfImage),
        most_codes_(kFewestArm64Codes + kArm64CodesPerFileByte * fileBytes(image)),
        rows_left_(kFewestArm64Rows + fileBytes(image) / kFileBytesPerArm64Row) {}

  Arm64UnwindReport write(bool truncated) {
    report_.truncated = truncated;
    const std::vector<uint32_t> order = entriesByAddress();
    for (size_t i = 0; i < order.size(); ++i) {
      const bool has_next = i + 1 < order.size();
      const uint32_t next = has_next ? table_[order[i + 1]].BeginAddress : UINT32_MAX;
      writeEntry(table_[order[i]], next);
    }
    cfi_.finish(truncated ? CfiWriter::Rest::kUnknown : CfiWriter::Rest::kLeaves);
    return report_;
  }

 private:
  // Indexes into the table, which ascends except in damaged files. Padding is omitted.
  std::vector<uint32_t> entriesByAddress() const {
    std::vector<uint32_t> order;
    order.reserve(table_.size());
    for (size_t i = 0; i < table_.size(); ++i) {
      if (table_[i].BeginAddress != 0 || table_[i].UnwindData != 0)
        order.push_back(static_cast<uint32_t>(i));
    }
    const auto beginsBelow = [this](uint32_t a, uint32_t b) {
      return table_[a].BeginAddress < table_[b].BeginAddress;
    };
    if (!std::is_sorted(order.begin(), order.end(), beginsBelow))
      std::stable_sort(order.begin(), order.end(), beginsBelow);
    return order;
  }

  // `next`: the begin of the entry that follows.
  void writeEntry(const Arm64RuntimeFunction& entry, uint32_t next) {
    ++report_.entries;
    const uint32_t begin = entry.BeginAddress;
    if (report_.limit_reached) {
      claimUndescribed(begin, /*size=*/0, next);
      return;
    }
    Arm64Status status = check(entry);
    const uint64_t size = uint64_t{entry_.length()} * kArm64InstructionBytes;
    if (status == Arm64Status::kOk && begin + size > image_end_) status = Arm64Status::kMalformed;
    if (report_.limit_reached || status != Arm64Status::kOk) {
      if (status == Arm64Status::kMalformed) ++report_.damaged;
      if (status == Arm64Status::kUnsupported) ++report_.unsupported;
      claimUndescribed(begin, size, next);
    } else if (!cfi_.claim({begin, static_cast<uint32_t>(size)})) {
      ++report_.overlapping;
    } else {
      writeProlog(begin);
      for (size_t i = 0; i < entry_.epilogCount(); ++i) writeEpilog(begin, i);
    }
  }

  // The code of an entry without rules is not a leaf function: it is claimed, as far as it is
  // known. `size` 0: unknown.
  void claimUndescribed(uint32_t begin, uint64_t size, uint32_t next) {
    uint64_t end = begin + size;
    if (size == 0 || end > image_end_) end = endOfFunction(begin);
    if (next > begin) end = std::min<uint64_t>(end, next);
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

  // Reads the whole entry first, so that nothing is written of a damaged one.
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
  size_t rows_of_ = SIZE_MAX;  // the codes that they were made from
  Arm64UnwindReport report_;
};

}  // namespace

Arm64UnwindReport writeArm64UnwindRules(const PeImage& image, uint32_t table, uint32_t table_bytes,
                                        std::span<const CodeRange> functions, TextBuffer& out) {
  const size_t count = table_bytes / sizeof(Arm64RuntimeFunction);
  const std::span entries = image.tableAt<Arm64RuntimeFunction>(table, count);
  return Arm64UnwindWriter(image, entries, functions, out).write(entries.size() < count);
}

}  // namespace symforge_internal
