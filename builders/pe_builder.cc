#include "builders/pe_builder.h"

#include <algorithm>
#include <cassert>

namespace builders {

namespace {

constexpr size_t kFileAlignment = 512;
constexpr uint32_t kCodeViewEntry = 2;
constexpr uint32_t kDebugEntrySize = 28;

Bytes& append_entry(Bytes& bytes, const FunctionEntry& entry) {
  return bytes.u32(entry.begin).u32(entry.end).u32(entry.unwind);
}

// Characteristics, time stamp, version, type, size, RVA, file position (0 here).
void append_debug_entry(Bytes& bytes, uint32_t kind, uint32_t size, uint32_t rva) {
  bytes.u32(0).u32(0).u32(0).u32(kind).u32(size).u32(rva).u32(0);
}

}  // namespace

uint16_t unwind_slot(uint8_t prolog_offset, uint8_t operation, uint8_t info) {
  return static_cast<uint16_t>(prolog_offset | (operation & 15) << 8 | info << 12);
}

// Version in 3 bits and flags in 5; prologue size; number of slots; frame register and offset in 4
// bits each; the slots, padded to an even number; the chained entry.
std::string UnwindInfo::bytes() const {
  Bytes bytes;
  bytes.u8(static_cast<uint8_t>((version & 7) | flags << 3)).u8(prolog_size);
  bytes.u8(static_cast<uint8_t>(slots.size()));
  bytes.u8(static_cast<uint8_t>((frame_register & 15) | frame_offset << 4));
  for (const uint16_t slot : slots) bytes.u16(slot);
  bytes.align(4);
  if ((flags & kUnwindChained) != 0) append_entry(bytes, chained);
  return std::move(bytes).str();
}

PeBuilder::PeBuilder(bool pe32_plus)
    : pe32_plus_(pe32_plus), machine_(pe32_plus ? 0x8664 : 0x14C) {}

PeBuilder& PeBuilder::machine(uint16_t machine) {
  machine_ = machine;
  return *this;
}

PeBuilder& PeBuilder::time_stamp(uint32_t seconds) {
  time_stamp_ = seconds;
  return *this;
}

PeBuilder& PeBuilder::size_of_image(uint32_t bytes) {
  size_of_image_ = bytes;
  return *this;
}

PeBuilder& PeBuilder::section(std::string_view name, uint32_t rva, std::string bytes,
                              uint32_t virtual_size, uint32_t characteristics) {
  Section header;
  header.name = name;
  header.address = rva;
  header.virtual_size = virtual_size != 0 ? virtual_size : static_cast<uint32_t>(bytes.size());
  header.characteristics = characteristics;
  sections_.push_back({header, std::move(bytes)});
  return *this;
}

PeBuilder& PeBuilder::directory(uint32_t index, uint32_t rva, uint32_t size) {
  directories_.at(index) = {rva, size};
  return *this;
}

PeBuilder& PeBuilder::codeview(const Guid& guid, uint32_t age, std::string_view pdb_path) {
  Bytes record;
  record.text("RSDS").text(guid_bytes(guid)).u32(age).zstr(pdb_path);
  const uint32_t entries = 2 * kDebugEntrySize;
  append_debug_entry(debug_, 16, 0, 0);
  append_debug_entry(debug_, kCodeViewEntry, static_cast<uint32_t>(record.size()),
                     kDebugRva + entries);
  debug_.text(record.str());
  return directory(6, kDebugRva, entries);
}

uint32_t PeBuilder::unwind_info(const UnwindInfo& info) { return raw_unwind_info(info.bytes()); }

uint32_t PeBuilder::raw_unwind_info(std::string_view bytes) {
  const auto rva = kUnwindRva + static_cast<uint32_t>(unwind_.size());
  unwind_.text(bytes).align(4);
  return rva;
}

PeBuilder& PeBuilder::function(uint32_t begin, uint32_t end, const UnwindInfo& info) {
  return function_entry({begin, end, unwind_info(info)});
}

PeBuilder& PeBuilder::function_entry(const FunctionEntry& entry) {
  append_entry(functions_, entry);
  return directory(3, kFunctionsRva, static_cast<uint32_t>(functions_.size()));
}

PeBuilder& PeBuilder::arm64_entry(uint32_t begin, uint32_t unwind_data) {
  functions_.u32(begin).u32(unwind_data);
  return directory(3, kFunctionsRva, static_cast<uint32_t>(functions_.size()));
}

// All sections with their file positions.
std::vector<PeBuilder::Content> PeBuilder::contents() const {
  PeBuilder all = *this;
  if (!debug_.empty()) all.section(".debug", kDebugRva, debug_.str());
  if (!unwind_.empty()) all.section(".xdata", kUnwindRva, unwind_.str());
  if (!functions_.empty()) all.section(".pdata", kFunctionsRva, functions_.str());
  size_t end = kNtHeaders + 264 + 40 * all.sections_.size();
  for (Content& content : all.sections_) {
    end += (kFileAlignment - end % kFileAlignment) % kFileAlignment;
    content.header.raw_offset = static_cast<uint32_t>(end);
    content.header.raw_size = static_cast<uint32_t>(content.bytes.size());
    end += content.bytes.size();
  }
  return std::move(all.sections_);
}

// Magic, linker version, three sizes, entry point, base of code (and of data in PE32), image base,
// section and file alignment, three versions, size of image and headers, checksum, subsystem, DLL
// characteristics, four stack and heap sizes, loader flags, the data directories.
std::string PeBuilder::optional_header(uint32_t headers_size) const {
  Bytes bytes;
  bytes.u16(pe32_plus_ ? 0x20B : 0x10B).u16(0).u32(0).u32(0).u32(0).u32(0x1000).u32(0x1000);
  if (pe32_plus_) {
    bytes.u64(0x140000000);
  } else {
    bytes.u32(0x1000).u32(0x400000);
  }
  bytes.u32(0x1000).u32(kFileAlignment).u32(6).u32(0).u32(6).u32(0);
  bytes.u32(size_of_image_).u32(headers_size).u32(0).u16(3).u16(0);
  bytes.fill(pe32_plus_ ? 32 : 16).u32(0).u32(static_cast<uint32_t>(directories_.size()));
  for (const auto& [rva, size] : directories_) bytes.u32(rva).u32(size);
  assert(bytes.size() == (pe32_plus_ ? 240u : 224u));
  return std::move(bytes).str();
}

std::string PeBuilder::headers(const std::vector<Content>& contents) const {
  Bytes bytes;
  bytes.text("MZ").fill(58).u32(kNtHeaders).fill(kNtHeaders - 64).text({"PE\0\0", 4});
  const std::string optional = optional_header(0x400);
  bytes.u16(machine_).u16(static_cast<uint16_t>(contents.size())).u32(time_stamp_);
  bytes.u32(0).u32(0).u16(static_cast<uint16_t>(optional.size())).u16(0x22).text(optional);
  for (const Content& content : contents) bytes.text(section_header(content.header));
  return std::move(bytes).str();
}

std::string PeBuilder::build() const {
  const std::vector<Content> all = contents();
  Bytes image(headers(all));
  for (const Content& content : all) image.align(kFileAlignment).text(content.bytes);
  // Readers read the larger, 64-bit NT headers from a 32-bit image, too.
  const size_t smallest = kNtHeaders + 264;
  if (image.size() < smallest) image.fill(smallest - image.size());
  return std::move(image).str();
}

}  // namespace builders
