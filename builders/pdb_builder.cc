#include "builders/pdb_builder.h"

#include <algorithm>
#include <cassert>
#include <cstdio>

namespace builders {

std::string guid_bytes(const Guid& guid) {
  Bytes bytes;
  bytes.u32(guid.data1).u16(guid.data2).u16(guid.data3);
  for (const uint8_t byte : guid.data4) bytes.u8(byte);
  return std::move(bytes).str();
}

std::string debug_id(const Guid& guid, uint32_t age) {
  char text[48];
  int at = std::snprintf(text, sizeof text, "%08X%04X%04X", guid.data1, guid.data2, guid.data3);
  for (const uint8_t byte : guid.data4) {
    at += std::snprintf(text + at, sizeof text - static_cast<size_t>(at), "%02X", byte);
  }
  std::snprintf(text + at, sizeof text - static_cast<size_t>(at), "%x", age);
  return text;
}

// Version, time, age, GUID. Then the size of the names, and the names. Then the hash table: number
// of entries, capacity, bitset of present slots, bitset of deleted slots, entries. Last a feature
// code (the id stream exists). A full table is correct for any hash function.
std::string InfoStream::bytes() const {
  Bytes text;
  Bytes entries;
  for (const auto& [name, stream] : named_streams) {
    entries.u32(static_cast<uint32_t>(text.size())).u32(stream);
    text.zstr(name);
  }
  const auto count = static_cast<uint32_t>(named_streams.size());
  const uint32_t slots = capacity != 0 ? capacity : std::max(count, 1u);
  const uint32_t words = present_words != 0 ? present_words : (slots + 31) / 32;

  Bytes stream;
  stream.u32(20000404).u32(time_stamp).u32(age).text(guid_bytes(guid));
  stream.u32(static_cast<uint32_t>(text.size())).text(text.str());
  stream.u32(count).u32(slots).u32(words);
  for (uint32_t word = 0; word < words; ++word) {
    const uint32_t present = count > 32 * word ? std::min(count - 32 * word, 32u) : 0;
    stream.u32(present == 32 ? 0xFFFFFFFF : (1u << present) - 1);
  }
  stream.u32(static_cast<uint32_t>(deleted_bits.size()));
  for (const uint32_t word : deleted_bits) stream.u32(word);
  return stream.text(entries.str()).u32(20140508).str();
}

uint32_t NamesBuilder::add(std::string_view text) {
  offsets_.push_back(static_cast<uint32_t>(strings_.size()));
  strings_.zstr(text);
  return offsets_.back();
}

// Signature, version, size of the strings, strings. Then the bucket count, one offset per bucket
// (0: empty), and the number of names.
std::string NamesBuilder::stream(uint32_t signature, uint32_t version) const {
  Bytes bytes;
  bytes.u32(signature).u32(version).u32(static_cast<uint32_t>(strings_.size()));
  bytes.text(strings_.str());
  bytes.u32(static_cast<uint32_t>(offsets_.size()) + 1).u32(0);
  for (const uint32_t offset : offsets_) bytes.u32(offset);
  return std::move(bytes.u32(static_cast<uint32_t>(offsets_.size()))).str();
}

namespace {

// Unused word, first section contribution (28 bytes), flags, stream, three sizes, number of files,
// padding, three fields of the linker; then both names, padded to a multiple of 4.
std::string module_record(const ModuleRecord& module) {
  Bytes bytes;
  bytes.u32(0).u16(0xFFFF).u16(0).u32(0).u32(0xFFFFFFFF).u32(0).u16(0xFFFF).u16(0).u32(0).u32(0);
  bytes.u16(0).u16(module.stream);
  bytes.u32(module.symbols_size).u32(module.old_lines_size).u32(module.lines_size);
  bytes.u16(0).u16(0).u32(0).u32(0).u32(0);
  assert(bytes.size() == 64);
  return bytes.zstr(module.name).zstr(module.object).align(4).str();
}

std::string debug_header(const DebugHeader& header) {
  Bytes bytes;
  bytes.u16(header.fpo).u16(header.exception).u16(header.fixup).u16(header.omap_to_source);
  bytes.u16(header.omap_from_source).u16(header.sections).u16(header.token_rid_map);
  bytes.u16(header.xdata).u16(header.pdata).u16(header.new_fpo).u16(header.sections_original);
  return std::move(bytes).str();
}

uint32_t size32(const std::string& bytes) { return static_cast<uint32_t>(bytes.size()); }

}  // namespace

std::string DbiStream::bytes() const {
  std::string records;
  for (const ModuleRecord& module : modules) records += module_record(module);
  Bytes bytes;
  // Signature, version, age; three pairs of the number of a symbol stream and a version.
  bytes.u32(0xFFFFFFFF).u32(19990903).u32(age).u16(kNoStream).u16(0x8E00);
  bytes.u16(kNoStream).u16(0).u16(symbol_records).u16(0);
  bytes.u32(modules_size.value_or(size32(records))).u32(size32(section_contributions));
  bytes.u32(size32(section_map)).u32(size32(file_info)).u32(size32(type_server_map)).u32(0);
  bytes.u32(22).u32(size32(edit_and_continue)).u16(0).u16(machine).u32(0);
  assert(bytes.size() == 64);
  bytes.text(records).text(section_contributions).text(section_map).text(file_info);
  return bytes.text(type_server_map).text(edit_and_continue).text(debug_header(debug)).str();
}

ModuleBuilder& PdbBuilder::add_module(std::string_view name, std::string_view object) {
  ModuleRecord record;
  record.name = name;
  record.object = object.empty() ? name : object;
  dbi.modules.push_back(std::move(record));
  return modules_.emplace_back();
}

PdbBuilder& PdbBuilder::section(const Section& section) {
  sections_.text(section_header(section));
  return *this;
}

PdbBuilder& PdbBuilder::original_section(const Section& section) {
  original_sections_.text(section_header(section));
  return *this;
}

PdbBuilder& PdbBuilder::omap_from(const std::vector<std::pair<uint32_t, uint32_t>>& pairs) {
  omap_from_.text(omap_table(pairs));
  return *this;
}

PdbBuilder& PdbBuilder::public_function(std::string_view name, uint16_t section, uint32_t offset) {
  symbol_records.text(public_symbol(name, section, offset));
  return *this;
}

PdbBuilder& PdbBuilder::fpo(const Fpo& record) {
  fpo_.text(fpo_record(record));
  return *this;
}

PdbBuilder& PdbBuilder::frame_data(const FrameData& record) {
  frame_data_.text(frame_data_record(record));
  return *this;
}

uint16_t PdbBuilder::add_if_any(const Bytes& bytes) {
  return bytes.empty() ? kNoStream : static_cast<uint16_t>(msf.add_stream(bytes.str()));
}

void PdbBuilder::lay_out() {
  assert(!laid_out_);
  laid_out_ = true;
  for (int fixed = 0; fixed < 5; ++fixed) msf.add_stream({});
  info.named_streams.emplace_back("/names", msf.add_stream(names.stream()));
  dbi.symbol_records = static_cast<uint16_t>(msf.add_stream(symbol_records.str()));
  dbi.debug.sections = add_if_any(sections_);
  dbi.debug.sections_original = add_if_any(original_sections_);
  dbi.debug.omap_from_source = add_if_any(omap_from_);
  // Readers only check whether the reverse map exists.
  dbi.debug.omap_to_source = add_if_any(omap_from_);
  dbi.debug.fpo = add_if_any(fpo_);
  dbi.debug.new_fpo = add_if_any(frame_data_);
  for (size_t i = 0; i < modules_.size(); ++i) {
    ModuleRecord& record = dbi.modules[i];
    record.stream = static_cast<uint16_t>(msf.add_stream(modules_[i].stream()));
    record.symbols_size = modules_[i].symbols_size();
    record.old_lines_size = modules_[i].old_lines_size();
    record.lines_size = modules_[i].subsections_size();
    modules_[i] = ModuleBuilder();
  }
  msf.set_stream(1, info.bytes()).set_stream(2, types.stream());
  msf.set_stream(3, dbi.bytes()).set_stream(4, ids.stream());
}

MsfFile PdbBuilder::build() {
  if (!laid_out_) lay_out();
  return msf.build();
}

}  // namespace builders
