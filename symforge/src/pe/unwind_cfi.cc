#include "symforge/src/pe/unwind_cfi.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <string_view>

#include "base/cycle_detector.h"
#include "base/limits.h"
#include "common/symbol_text.h"
#include "symforge/src/parallel/worker_pool.h"
#include "symforge/src/pdb_exception.h"
#include "symforge/src/pe/unwind_codes.h"

namespace symforge_internal {

namespace {

struct NamedRegister {
  uint8_t number;
  std::string_view name;
};

// In the order of the output.
constexpr NamedRegister kPrinted[] = {
    {kRbp, "$rbp"}, {kR12, "$r12"}, {kR13, "$r13"}, {kR14, "$r14"}, {kR15, "$r15"},
    {kRbx, "$rbx"}, {kRdi, "$rdi"}, {kRsi, "$rsi"}, {kRsp, "$rsp"},
};

// Follows links from function entries to their unwind data. The number of links is limited for the
// image as a whole, far above what linkers write (Windows follows at most 32). This ends cycles,
// and long chains that many entries share.
class UnwindLinks {
 public:
  UnwindLinks(const PeImage& image, size_t entries)
      : m_image(image),
        m_lookupCost(image.ntHeaders()->FileHeader.NumberOfSections / 16),
        m_left(limits::kUnwindSlots + limits::kUnwindSlotsPerEntry * uint64_t{entries}) {}

  // From an entry to the address of its unwind data. Bit 0 set: the address is that of another
  // entry. False for dangling links.
  bool resolveEntry(uint32_t& rva) {
    if (!spend(m_lookupCost)) return false;
    while ((rva & 1) != 0) {
      const auto* entry = m_image.recordAt<IMAGE_RUNTIME_FUNCTION_ENTRY>(rva ^ 1);
      if (entry == nullptr || !spend(1 + m_lookupCost)) return false;
      rva = entry->UnwindInfoAddress;
    }
    return true;
  }

  // Null when there is none, or when its slots leave the file.
  const UnwindInfo* find(uint32_t rva) const {
    const auto* info = m_image.recordAt<UnwindInfo>(rva);
    const bool whole = info != nullptr && bytesLeft(*info) >= info->size();
    return whole ? info : nullptr;
  }

  // Accumulates an info and those that it is chained to. False for a cycle, which repeats itself
  // once each of its infos was added twice.
  bool accumulateChain(const UnwindInfo* info, UnwindFrame& frame) {
    CycleDetector<const UnwindInfo*> chain;
    int rounds = 0;
    while (info != nullptr) {
      if (chain.visit(info) && ++rounds == 2) return false;
      if (!spend(1 + m_lookupCost + info->count_of_codes) || !frame.add(*info)) return false;
      info = info->chained() ? follow(*info) : nullptr;
    }
    return true;
  }

 private:
  bool spend(uint64_t cost) {
    if (cost > m_left) return false;
    m_left -= cost;
    return true;
  }

  size_t bytesLeft(const UnwindInfo& info) const {
    return m_image.bytesLeft(&info.version_and_flags);
  }

  // The info that a chained one refers to, or null. Bit 0 of its address is not tested.
  const UnwindInfo* follow(const UnwindInfo& info) const {
    const size_t link = info.chainOffset();
    if (bytesLeft(info) < link + sizeof(IMAGE_RUNTIME_FUNCTION_ENTRY)) return nullptr;
    const auto* entry =
        reinterpret_cast<const IMAGE_RUNTIME_FUNCTION_ENTRY*>(&info.version_and_flags + link);
    return find(entry->UnwindInfoAddress);
  }

  const PeImage& m_image;
  const uint64_t m_lookupCost;  // of an RVA, which is searched for in all sections
  uint64_t m_left;              // slots and links
};

constexpr int32_t kReturnAddress = 8;  // bytes

int32_t minus(int32_t from, int32_t what) {
  return static_cast<int32_t>(static_cast<uint32_t>(from) - static_cast<uint32_t>(what));
}

// Without a frame register all places are relative to the stack pointer at the end of the prolog.
// `size`: bytes of the frame from there to its top, with the return address.
void printFromStackPointer(const UnwindFrame& frame, int32_t size, LineWriter& line) {
  line.str(" .cfa: $rsp ").dec_signed(size).str(" +");
  for (const NamedRegister& reg : kPrinted) {
    if (frame.saved.has(reg.number))
      line.chr(' ').str(reg.name).str(": $rsp ").dec_signed(frame.saved[reg.number]).str(" + ^");
  }
}

// The rules name rbp, whichever register is the frame register.
void printFromFramePointer(const UnwindFrame& frame, int32_t size, const UnwindInfo& top,
                           LineWriter& line) {
  const int32_t cfa = minus(minus(size, 16 * top.frame_offset()), frame.fp_offset);
  line.str(" .cfa: $rbp ").dec_signed(cfa).str(" +");
  for (const NamedRegister& reg : kPrinted) {
    if (frame.saved.has(reg.number)) {
      const int32_t offset = minus(size, frame.saved[reg.number]);
      line.chr(' ').str(reg.name).str(": .cfa ").dec_signed(offset).str(" - ^");
    }
  }
}

void printFrame(const IMAGE_RUNTIME_FUNCTION_ENTRY& entry, const UnwindInfo& top,
                const UnwindFrame& frame, TextBuffer& out) {
  constexpr size_t kMaxBytes = 512;
  const int32_t fp_offset = frame.fp_offset;
  if (top.frame_register() != 0) assert(fp_offset != INT32_MAX);
  const uint32_t begin = entry.BeginAddress;
  LineWriter lines(out, kMaxBytes);
  put_cfi_init(lines, begin, uint32_t{entry.EndAddress - begin});
  lines.str(" .cfa: $rsp .ra: .cfa ").dec_signed(frame.rip_offset).str(" - ^\n");
  put_cfi_delta(lines, begin);
  const int32_t size = minus(frame.stack_size, -kReturnAddress);
  if (top.frame_register() == 0) {
    printFromStackPointer(frame, size, lines);
  } else {
    printFromFramePointer(frame, size, top, lines);
  }
  lines.chr('\n');
}

// False for links or unwind data that cannot be followed to their end.
bool printEntry(UnwindLinks& links, const IMAGE_RUNTIME_FUNCTION_ENTRY& entry, TextBuffer& out) {
  uint32_t rva = entry.UnwindInfoAddress;
  if (!links.resolveEntry(rva)) return false;
  const UnwindInfo* top = links.find(rva);
  if (top == nullptr) return true;  // a function without lines
  UnwindFrame frame;
  if (!links.accumulateChain(top, frame)) return false;
  printFrame(entry, *top, frame, out);
  return true;
}

void warn(const char* text) {
  WorkerPool::giveUpOnWorker();
  std::fputs(text, stderr);
}

// True if the image has x64 exception data; otherwise prints the reason.
bool hasUnwindData(const PeImage& image) {
  if (!image.isPe32Plus()) {
    warn("Not a PE32+ image\n");
    return false;
  }
  if (isClrAssembly(*image.ntHeaders())) {
    warn(kClrNotSupported);  // without a line end, as it always was
    return false;
  }
  return true;
}

// Prints the entries, up to the end of the file.
void printEntries(const PeImage& image, const uint8_t* table, size_t count, TextBuffer& out) {
  const auto* entries = reinterpret_cast<const IMAGE_RUNTIME_FUNCTION_ENTRY*>(table);
  const size_t present = image.bytesLeft(table) / sizeof(*entries);
  UnwindLinks links(image, std::min(count, present));
  for (size_t i = 0; i < count; ++i) {
    if (i == present) {
      warn("Failed to find function entries\n");
      return;
    }
    if (!printEntry(links, entries[i], out)) {
      warn("Failed to find chained function\n");
      return;
    }
  }
}

}  // namespace

void printUnwindData(const PeImage& image, TextBuffer& out) {
  if (!image.hasDosHeader()) throw pdb_exception("Invalid PE header detected");
  if (image.ntHeaders() == nullptr) throw pdb_exception("Error reading PE NT header");
  if (!hasUnwindData(image)) return;
  const IMAGE_DATA_DIRECTORY& directory =
      image.ntHeaders()->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXCEPTION];
  const uint8_t* table = image.ImageRvaToVa(directory.VirtualAddress);
  if (table == nullptr) {
    warn("Failed to find function entries\n");
    return;
  }
  printEntries(image, table, directory.Size / sizeof(IMAGE_RUNTIME_FUNCTION_ENTRY), out);
}

}  // namespace symforge_internal
