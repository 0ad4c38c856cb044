#include "symforge/src/pe/unwind_rules.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "symforge/src/pe/arm64_unwind.h"
#include "symforge/src/pe/arm64_unwind_records.h"
#include "symforge/src/pe/hybrid_code.h"
#include "symforge/src/pe/x64_unwind.h"

namespace symforge_internal {

namespace {

constexpr uint16_t kI386 = IMAGE_FILE_MACHINE_I386;
constexpr uint16_t kAmd64 = IMAGE_FILE_MACHINE_AMD64;
constexpr uint16_t kArm64 = IMAGE_FILE_MACHINE_ARM64;
constexpr uint16_t kArmFirst = 0x1C0;  // ARM, Thumb and Thumb-2
constexpr uint16_t kArmLast = IMAGE_FILE_MACHINE_ARM;

class UnwindRules {
 public:
  UnwindRules(const PeImage& image, std::span<const CodeRange> functions, TextBuffer& out)
      : image_(image), functions_(functions), out_(out) {}

  std::vector<std::string> write() {
    const uint16_t machine = image_.ntHeaders()->FileHeader.Machine;
    if (machine == kI386) return {};
    if (machine >= kArmFirst && machine <= kArmLast) {
      say("no unwind rules are made for 32-bit ARM");
    } else if (machine != kAmd64 && machine != kArm64) {
      say("no unwind rules are made for this machine");
    } else if (!image_.isPe32Plus()) {
      say("no unwind rules: not a PE32+ image");
    } else {
      writeMachine(machine);
    }
    return std::move(messages_);
  }

 private:
  void writeMachine(uint16_t machine) {
    const IMAGE_DATA_DIRECTORY& table =
        image_.ntHeaders()->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXCEPTION];
    HybridCode code;
    switch (readHybridCode(image_, code)) {
      case HybridStatus::kNone:
        machine == kAmd64 ? writeX64(table, functions_) : writeArm64(table, functions_);
        break;
      case HybridStatus::kDamaged:
        say("no unwind rules: the image does not tell its x64 code from its ARM64 code");
        break;
      case HybridStatus::kHybrid:
        writeHybrid(code, machine == kAmd64 ? table : code.extra_table,
                    machine == kAmd64 ? code.extra_table : table);
        break;
    }
  }

  void writeHybrid(const HybridCode& code, const IMAGE_DATA_DIRECTORY& x64_table,
                   const IMAGE_DATA_DIRECTORY& arm64_table) {
    if (!code.x64.empty()) {
      if (beginsIn<IMAGE_RUNTIME_FUNCTION_ENTRY>(x64_table, code.x64)) {
        writeX64(x64_table, partsInRanges(functions_, code.x64));
      } else {
        say("no unwind rules for x64 code: the image does not tell where they are");
      }
    }
    if (!code.arm64.empty()) {
      if (beginsIn<Arm64RuntimeFunction>(arm64_table, code.arm64)) {
        writeArm64(arm64_table, partsInRanges(functions_, code.arm64));
      } else {
        say("no unwind rules for ARM64 code: the image does not tell where they are");
      }
    }
  }

  // Whether the file has entries of this kind and all of them begin in `ranges`.
  template <typename Entry>
  bool beginsIn(const IMAGE_DATA_DIRECTORY& table, std::span<const CodeRange> ranges) const {
    const uint8_t* bytes = image_.bytesAt(table.VirtualAddress, table.Size);
    if (table.Size == 0 || table.Size % sizeof(Entry) != 0 || bytes == nullptr) return false;
    const std::span entries(reinterpret_cast<const Entry*>(bytes), table.Size / sizeof(Entry));
    return std::all_of(entries.begin(), entries.end(), [ranges](const Entry& entry) {
      return entry.BeginAddress == 0 || isInRanges(entry.BeginAddress, ranges);
    });
  }

  void writeX64(const IMAGE_DATA_DIRECTORY& table, std::span<const CodeRange> functions) {
    const X64UnwindReport report =
        writeX64UnwindRules(image_, table.VirtualAddress, table.Size, functions, out_);
    sayCount(report.unknown_version, "with unwind data of an unknown version");
    sayCount(report.damaged, "with damaged unwind data");
    sayCount(report.overlapping, "inside of others");
    if (report.truncated) say("the table of unwind data leaves the file");
  }

  void writeArm64(const IMAGE_DATA_DIRECTORY& table, std::span<const CodeRange> functions) {
    const Arm64UnwindReport report =
        writeArm64UnwindRules(image_, table.VirtualAddress, table.Size, functions, out_);
    sayCount(report.unsupported, "with a stack layout that rules do not describe");
    sayCount(report.damaged, "with damaged unwind data");
    sayCount(report.overlapping, "inside of others");
    if (report.truncated) say("the table of unwind data leaves the file");
    if (report.limit_reached)
      say("too many unwind codes for an image of this size: rules are missing");
  }

  void sayCount(size_t entries, std::string_view what) {
    if (entries == 0) return;
    std::string text = kNoRulesFor + std::to_string(entries);
    text += entries == 1 ? " entry " : " entries ";
    say(text.append(what));
  }

  void say(std::string text) { messages_.push_back(std::move(text)); }

  const PeImage& image_;
  std::span<const CodeRange> functions_;
  TextBuffer& out_;
  std::vector<std::string> messages_;
};

}  // namespace

std::vector<std::string> writeUnwindRules(const PeImage& image,
                                          std::span<const CodeRange> functions, TextBuffer& out) {
  if (image.ntHeaders() == nullptr) return {"no unwind rules: no headers of a PE image"};
  return UnwindRules(image, functions, out).write();
}

}  // namespace symforge_internal
