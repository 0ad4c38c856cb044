// PeBuilder: builds a PE32+ or PE32 image with the parts that debuggers read.
//
//   PeBuilder pe;
//   pe.section(".text", 0x1000, code);
//   pe.codeview(guid, 1, "C:\\build\\a.pdb");
//   pe.function(0x1000, 0x1020, UnwindInfo{.slots = {unwind_slot(4, kAllocSmall, 3)}});
//   write_file(path, pe.build());
//
// Layout: 64 bytes of DOS header, the NT headers at 0x80, the section headers, then the contents of
// the sections, each at a multiple of 512. codeview() and function() write to sections of their
// own, at the RVAs kDebugRva, kUnwindRva and kFunctionsRva.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "builders/bytes.h"
#include "builders/codeview_builder.h"
#include "builders/pdb_builder.h"

namespace builders {

// Unwind operations.
inline constexpr uint8_t kPushNonvol = 0;
inline constexpr uint8_t kAllocLarge = 1;
inline constexpr uint8_t kAllocSmall = 2;
inline constexpr uint8_t kSetFpreg = 3;
inline constexpr uint8_t kSaveNonvol = 4;
inline constexpr uint8_t kSaveNonvolFar = 5;
inline constexpr uint8_t kEpilog = 6;  // version 2
inline constexpr uint8_t kSaveXmm128 = 8;
inline constexpr uint8_t kSaveXmm128Far = 9;
inline constexpr uint8_t kPushMachframe = 10;

// A 16-bit slot: offset in the prologue, operation, operand. Further operands are plain numbers.
uint16_t unwind_slot(uint8_t prolog_offset, uint8_t operation, uint8_t info);

// A function entry: RVAs of its start, its end and its unwind info.
struct FunctionEntry {
  uint32_t begin = 0;
  uint32_t end = 0;
  uint32_t unwind = 0;
};

inline constexpr uint8_t kUnwindChained = 4;

struct UnwindInfo {
  uint8_t flags = 0;  // with kUnwindChained, `chained` is written after the slots
  uint8_t prolog_size = 0;
  uint8_t frame_register = 0;
  uint8_t frame_offset = 0;  // in units of 16 bytes
  std::vector<uint16_t> slots = {};
  FunctionEntry chained = {};
  uint8_t version = 1;

  std::string bytes() const;
};

class PeBuilder {
 public:
  static constexpr uint32_t kDebugRva = 0x01000000;
  static constexpr uint32_t kUnwindRva = 0x02000000;
  static constexpr uint32_t kFunctionsRva = 0x03000000;
  static constexpr uint32_t kNtHeaders = 0x80;

  explicit PeBuilder(bool pe32_plus = true);

  PeBuilder& machine(uint16_t machine);
  PeBuilder& time_stamp(uint32_t seconds);
  PeBuilder& size_of_image(uint32_t bytes);
  // `virtual_size` 0 means the number of bytes.
  PeBuilder& section(std::string_view name, uint32_t rva, std::string bytes,
                     uint32_t virtual_size = 0, uint32_t characteristics = 0x40000040);
  // Sets a data directory: 3 exceptions, 6 debug, 14 CLR.
  PeBuilder& directory(uint32_t index, uint32_t rva, uint32_t size);
  // Adds a debug directory: an entry of another type, then one with an RSDS record.
  PeBuilder& codeview(const Guid& guid, uint32_t age, std::string_view pdb_path);
  // Adds unwind info without a function entry, as the target of a chain. Returns its RVA.
  uint32_t unwind_info(const UnwindInfo& info);
  uint32_t raw_unwind_info(std::string_view bytes);
  // Add a function with its own unwind info, and an arbitrary entry.
  PeBuilder& function(uint32_t begin, uint32_t end, const UnwindInfo& info);
  PeBuilder& function_entry(const FunctionEntry& entry);
  // Adds an entry of an ARM64 image: the RVA of the function, and packed data or the RVA of a
  // record.
  PeBuilder& arm64_entry(uint32_t begin, uint32_t unwind_data);

  std::string build() const;

 private:
  struct Content {
    Section header;
    std::string bytes;
  };

  std::vector<Content> contents() const;
  std::string headers(const std::vector<Content>& contents) const;
  std::string optional_header(uint32_t headers_size) const;

  bool pe32_plus_;
  uint16_t machine_;
  uint32_t time_stamp_ = 0x5F000001;
  uint32_t size_of_image_ = 0x04000000;
  std::vector<Content> sections_;
  std::array<std::pair<uint32_t, uint32_t>, 16> directories_{};
  Bytes debug_;
  Bytes unwind_;
  Bytes functions_;
};

}  // namespace builders
