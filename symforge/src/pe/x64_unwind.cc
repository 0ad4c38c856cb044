#include "symforge/src/pe/x64_unwind.h"

#include <algorithm>
#include <array>
#include <functional>
#include <numeric>
#include <string_view>
#include <vector>

#include "symforge/src/pe/x64_epilog.h"
#include "symforge/src/pe/x64_frame.h"

namespace symforge_internal {

namespace {

using Entry = IMAGE_RUNTIME_FUNCTION_ENTRY;
using Status = X64Prolog::Status;

constexpr std::array<std::string_view, 16> kRegisterNames = {
    "$rax", "$rcx", "$rdx", "$rbx", "$rsp", "$rbp", "$rsi", "$rdi",
    "$r8",  "$r9",  "$r10", "$r11", "$r12", "$r13", "$r14", "$r15"};

// The records of an entry: its own first, then those that it is chained to.
class UnwindChain {
 public:
  // False for links that leave the file and for too many links.
  bool follow(const PeImage& image, const Entry& entry) {
    size_ = 0;
    links_ = 0;
    const Entry* next = &entry;
    while (next != nullptr) {
      const UnwindInfo* info = find(image, next->UnwindInfoAddress);
      if (info == nullptr || ++links_ > kMostUnwindLinks) return false;
      records_[size_++] = info;
      next = nullptr;
      if (hasVersion(*info) && info->chained()) {
        next = parentOf(image, *info);
        if (next == nullptr) return false;
      }
    }
    return true;
  }

  std::span<const UnwindInfo* const> records() const { return {records_.data(), size_}; }
  size_t links() const { return links_; }  // that were followed, also when follow() failed

 private:
  // The flags of other versions, and where their links are, are unknown.
  static bool hasVersion(const UnwindInfo& info) {
    const unsigned version = info.version_and_flags & 7;
    return version == 1 || version == 2;
  }

  // Bit 0 of the address: not a record, but another entry with the same data.
  const UnwindInfo* find(const PeImage& image, uint32_t rva) {
    while ((rva & 1) != 0) {
      const auto* entry = image.recordAt<Entry>(rva ^ 1);
      if (entry == nullptr || ++links_ > kMostUnwindLinks) return nullptr;
      rva = entry->UnwindInfoAddress;
    }
    const auto* info = image.recordAt<UnwindInfo>(rva);
    const auto* bytes = reinterpret_cast<const uint8_t*>(info);
    return info != nullptr && image.bytesLeft(bytes) >= info->size() ? info : nullptr;
  }

  static const Entry* parentOf(const PeImage& image, const UnwindInfo& info) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&info);
    const size_t offset = info.chainOffset();
    if (image.bytesLeft(bytes) < offset + sizeof(Entry)) return nullptr;
    return reinterpret_cast<const Entry*>(bytes + offset);
  }

  std::array<const UnwindInfo*, kMostUnwindLinks> records_{};
  size_t size_ = 0;
  size_t links_ = 0;
};

class X64UnwindWriter {
 public:
  X64UnwindWriter(const PeImage& image, std::span<const Entry> entries,
                  std::span<const CodeRange> functions, TextBuffer& out)
      : image_(image),
        entries_(entries),
        cfi_(out, {kRegisterNames, X64Frame().rules()}, functions),
        lookup_cost_(1 + image.ntHeaders()->FileHeader.NumberOfSections / 64),
        slots_left_(kFewestUnwindSlots + kUnwindSlotsPerEntry * entries.size()) {}

  X64UnwindReport write(bool truncated) {
    report_.truncated = truncated;
    if (std::is_sorted(entries_.begin(), entries_.end(), beginsBelow)) {
      for (const Entry& entry : entries_) writeEntry(entry);
    } else {
      writeUnsorted();
    }
    cfi_.finish(truncated ? CfiWriter::Rest::kUnknown : CfiWriter::Rest::kLeaves);
    return report_;
  }

 private:
  // Takes slots from the image's limit. False if fewer are left.
  bool charge(uint64_t slots) {
    const bool enough = slots <= slots_left_;
    slots_left_ = enough ? slots_left_ - slots : 0;
    return enough;
  }

  static bool beginsBelow(const Entry& a, const Entry& b) {
    return a.BeginAddress < b.BeginAddress;
  }

  void writeUnsorted() {
    std::vector<uint32_t> order(entries_.size());
    std::iota(order.begin(), order.end(), 0U);
    std::sort(order.begin(), order.end(), [this](uint32_t a, uint32_t b) {
      const uint32_t begin_a = entries_[a].BeginAddress;
      const uint32_t begin_b = entries_[b].BeginAddress;
      return begin_a != begin_b ? begin_a < begin_b : a < b;
    });
    for (const uint32_t i : order) writeEntry(entries_[i]);
  }

  void writeEntry(const Entry& entry) {
    const uint32_t begin = entry.BeginAddress;
    const uint32_t end = entry.EndAddress;
    if (begin == 0 && end == 0) return;
    ++report_.entries;
    if (end <= begin) {
      ++report_.damaged;
      return;
    }
    range_ = {begin, end - begin};
    if (!cfi_.claim(range_)) {
      ++report_.overlapping;
      return;
    }
    const Status status = replayChain(entry);
    if (status == Status::kUnknownVersion) ++report_.unknown_version;
    if (status == Status::kDamaged) ++report_.damaged;
    if (status == Status::kOk) writeRows();
  }

  // Sets frame_ to the frame at the start of `entry`'s code, prolog_ to its operations, and body_
  // to the frame after them.
  Status replayChain(const Entry& entry) {
    if (slots_left_ == 0) return Status::kDamaged;
    const bool whole = chain_.follow(image_, entry);
    charge(chain_.links() * lookup_cost_);
    if (!whole) return Status::kDamaged;
    const auto records = chain_.records();
    frame_ = X64Frame();
    body_ = frame_;
    for (size_t i = records.size(); i-- > 0;) {
      if (!charge(records[i]->count_of_codes)) return Status::kDamaged;
      const Status status = prolog_.decode(*records[i]);
      if (status != Status::kOk) return status;
      frame_ = body_;
      if (!body_.applyAll(prolog_)) return Status::kDamaged;
    }
    return Status::kOk;
  }

  void writeRows() {
    cfi_.start(frame_.rules());
    frame_.begin(prolog_);
    for (const X64Operation& operation : prolog_.operations()) {
      frame_.apply(prolog_, operation);
      cfi_.change(range_.begin + operation.prolog_offset, frame_.rules());
    }
    writeEpilogs();
  }

  void writeEpilogs() {
    std::array<uint16_t, X64Prolog::kMostSlots> distances;
    const auto epilogs = prolog_.epilogs();
    std::copy(epilogs.begin(), epilogs.end(), distances.begin());
    std::sort(distances.begin(), distances.begin() + epilogs.size(), std::greater<>());
    uint64_t done = uint64_t{range_.begin} + prolog_.size();  // where the next one can begin
    for (size_t i = 0; i < epilogs.size(); ++i) {
      const uint64_t address = range_.end() - distances[i];
      if (distances[i] <= range_.size && address >= done &&
          writeEpilog(static_cast<uint32_t>(address))) {
        done = address + epilog_.size();
      } else {
        ++report_.unmatched_epilogs;
      }
    }
  }

  // False if the code is not an epilog.
  bool writeEpilog(uint32_t address) {
    if (!charge(lookup_cost_)) return false;
    const uint8_t* code = image_.ImageRvaToVa(address);
    if (code == nullptr) return false;
    const size_t size = std::min<size_t>(range_.end() - address, image_.bytesLeft(code));
    if (!epilog_.read({code, size}, prolog_.epilogSize(), body_)) return false;
    if (!charge(epilog_.popCount())) return false;
    epilog_.writeRows(address, body_, cfi_);
    return true;
  }

  const PeImage& image_;
  std::span<const Entry> entries_;
  CfiWriter cfi_;
  X64UnwindReport report_;
  uint64_t lookup_cost_;  // of an RVA: the image searches its sections, of which Windows loads 96
  uint64_t slots_left_;

  // Of the current entry.
  CodeRange range_;
  UnwindChain chain_;
  X64Prolog prolog_;
  X64Frame frame_;
  X64Frame body_;
  X64Epilog epilog_;
};

}  // namespace

X64UnwindReport writeX64UnwindRules(const PeImage& image, uint32_t table, uint32_t table_bytes,
                                    std::span<const CodeRange> functions, TextBuffer& out) {
  const size_t count = table_bytes / sizeof(Entry);
  const std::span entries = image.tableAt<Entry>(table, count);
  return X64UnwindWriter(image, entries, functions, out).write(entries.size() < count);
}

X64UnwindReport writeX64UnwindRules(const PeImage& image, std::span<const CodeRange> functions,
                                    TextBuffer& out) {
  const IMAGE_DATA_DIRECTORY& directory =
      image.ntHeaders()->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXCEPTION];
  return writeX64UnwindRules(image, directory.VirtualAddress, directory.Size, functions, out);
}

}  // namespace symforge_internal
