#include "builders/codeview_builder.h"

#include <cassert>

namespace builders {

std::string compressed(uint32_t value) {
  assert(value < 0x20000000);
  Bytes bytes;
  if (value < 0x80) {
    bytes.u8(static_cast<uint8_t>(value));
  } else if (value < 0x4000) {
    bytes.u8(static_cast<uint8_t>(0x80 | value >> 8)).u8(static_cast<uint8_t>(value));
  } else {
    bytes.u8(static_cast<uint8_t>(0xC0 | value >> 24)).u8(static_cast<uint8_t>(value >> 16));
    bytes.u8(static_cast<uint8_t>(value >> 8)).u8(static_cast<uint8_t>(value));
  }
  return std::move(bytes).str();
}

Annotations& Annotations::op(uint32_t opcode, uint32_t operand) {
  bytes_ += compressed(opcode) + compressed(operand);
  return *this;
}

Annotations& Annotations::op(uint32_t opcode, uint32_t first, uint32_t second) {
  bytes_ += compressed(opcode) + compressed(first) + compressed(second);
  return *this;
}

Annotations& Annotations::raw(std::string_view bytes) {
  bytes_ += bytes;
  return *this;
}

uint32_t Annotations::signed_operand(int32_t delta) {
  return delta < 0 ? static_cast<uint32_t>(-delta) << 1 | 1 : static_cast<uint32_t>(delta) << 1;
}

// Procedure: parent, end, next (0 here), length, debug start and end, type, offset, section, flags,
// name.
ModuleBuilder& ModuleBuilder::proc(const Proc& proc, uint16_t kind) {
  Bytes body;
  body.u32(0).u32(0).u32(0).u32(proc.length).u32(0).u32(proc.length);
  body.u32(proc.type).u32(proc.offset).u16(proc.section).u8(0).zstr(proc.name);
  return symbol(kind, body.str());
}

// Thunk: parent, end, next, offset, section, 16-bit length, ordinal, name.
ModuleBuilder& ModuleBuilder::thunk(const Proc& thunk, uint32_t parent) {
  Bytes body;
  body.u32(parent).u32(0).u32(0).u32(thunk.offset).u16(thunk.section);
  body.u16(static_cast<uint16_t>(thunk.length)).u8(0).zstr(thunk.name);
  return symbol(kThunk32, body.str());
}

ModuleBuilder& ModuleBuilder::inline_site(uint32_t inlinee, const Annotations& annotations) {
  return symbol(kInlineSite, Bytes().u32(0).u32(0).u32(inlinee).text(annotations.bytes()).str());
}

ModuleBuilder& ModuleBuilder::inline_site2(uint32_t inlinee, const Annotations& annotations) {
  return symbol(kInlineSite2,
                Bytes().u32(0).u32(0).u32(inlinee).u32(1).text(annotations.bytes()).str());
}

// Parent, end, length, flags, offset, offset of the function, and the sections of both.
ModuleBuilder& ModuleBuilder::separated_code(uint32_t offset, uint32_t length, uint32_t function) {
  return symbol(
      kSepCode,
      Bytes().u32(0).u32(0).u32(length).u32(0).u32(offset).u32(function).u16(1).u16(1).str());
}

ModuleBuilder& ModuleBuilder::symbol(uint16_t kind, std::string_view body) {
  // The size field does not include itself. Including it, the record's length is a multiple of 4.
  const size_t padding = (4 - body.size() % 4) % 4;
  symbols_.u16(static_cast<uint16_t>(2 + body.size() + padding)).u16(kind);
  symbols_.text(body).fill(padding);
  return *this;
}

ModuleBuilder& ModuleBuilder::raw_symbols(std::string_view bytes) {
  symbols_.text(bytes);
  return *this;
}

uint32_t ModuleBuilder::file(uint32_t name, std::string_view checksum, uint8_t kind) {
  const auto reference = static_cast<uint32_t>(checksums_.size());
  checksums_.u32(name).u8(static_cast<uint8_t>(checksum.size())).u8(kind).text(checksum).align(4);
  return reference;
}

ModuleBuilder& ModuleBuilder::checksums_here() {
  subsection(kFileChecksums, checksums_.str());
  checksums_placed_ = true;
  return *this;
}

ModuleBuilder& ModuleBuilder::lines(uint16_t section, uint32_t offset, uint32_t length,
                                    uint32_t file, const std::vector<Line>& lines) {
  return this->lines(section, offset, length, {{file, lines}});
}

// Line subsection: offset, section, flags, code size. Then per file: its reference, the number of
// lines, the size of the block including this header, and the lines.
ModuleBuilder& ModuleBuilder::lines(
    uint16_t section, uint32_t offset, uint32_t length,
    const std::vector<std::pair<uint32_t, std::vector<Line>>>& blocks) {
  Bytes payload;
  payload.u32(offset).u16(section).u16(0).u32(length);
  for (const auto& [file, lines] : blocks) {
    const auto count = static_cast<uint32_t>(lines.size());
    payload.u32(file).u32(count).u32(12 + 8 * count);
    for (const Line& line : lines) payload.u32(line.offset).u32(line.line);
  }
  return subsection(kLines, payload.str());
}

ModuleBuilder& ModuleBuilder::inlinees(const std::vector<Inlinee>& inlinees, uint32_t signature) {
  Bytes payload;
  payload.u32(signature);
  for (const Inlinee& entry : inlinees) {
    payload.u32(entry.inlinee).u32(entry.file).u32(entry.line);
    if (signature != 1) continue;
    payload.u32(static_cast<uint32_t>(entry.extra_files.size()));
    for (const uint32_t file : entry.extra_files) payload.u32(file);
  }
  return subsection(kInlineeLines, payload.str());
}

ModuleBuilder& ModuleBuilder::subsection(uint32_t kind, std::string_view payload) {
  subsections_.u32(kind).u32(static_cast<uint32_t>(payload.size())).text(payload).align(4);
  return *this;
}

ModuleBuilder& ModuleBuilder::raw_subsections(std::string_view bytes) {
  subsections_.text(bytes);
  return *this;
}

ModuleBuilder& ModuleBuilder::signature(uint32_t signature) {
  signature_ = signature;
  return *this;
}

ModuleBuilder& ModuleBuilder::old_lines(std::string_view bytes) {
  old_lines_ = bytes;
  return *this;
}

ModuleBuilder& ModuleBuilder::tail(std::string_view bytes) {
  tail_ = bytes;
  return *this;
}

std::string ModuleBuilder::subsections() const {
  Bytes bytes;
  if (!checksums_placed_ && !checksums_.empty()) {
    bytes.u32(kFileChecksums).u32(static_cast<uint32_t>(checksums_.size()));
    bytes.text(checksums_.str());
  }
  return std::move(bytes.text(subsections_.str())).str();
}

std::string ModuleBuilder::stream() const {
  Bytes bytes;
  bytes.u32(signature_).text(symbols_.str()).text(old_lines_);
  return bytes.text(subsections()).text(tail_).str();
}

std::string public_symbol(std::string_view name, uint16_t section, uint32_t offset,
                          uint32_t flags) {
  Bytes body;
  body.u16(kPub32).u32(flags).u32(offset).u16(section).zstr(name);
  const size_t padding = (4 - (body.size() + 2) % 4) % 4;
  body.fill(padding);
  return Bytes().u16(static_cast<uint16_t>(body.size())).text(body.str()).str();
}

uint32_t TypeStreamBuilder::add(uint16_t leaf, std::string_view payload, TypePadding padding) {
  const size_t counted = padding == TypePadding::kCounted ? (4 - payload.size() % 4) % 4 : 0;
  records_.u16(static_cast<uint16_t>(2 + payload.size() + counted)).u16(leaf).text(payload);
  for (size_t left = counted; left > 0; --left) records_.u8(static_cast<uint8_t>(0xF0 + left));
  if (padding == TypePadding::kZeros) records_.align(4);
  return first_ + count_++;
}

uint32_t TypeStreamBuilder::modifier(uint32_t type, uint16_t attributes) {
  return add(0x1001, Bytes().u32(type).u16(attributes).str());
}

uint32_t TypeStreamBuilder::pointer(uint32_t type, uint32_t attributes) {
  return add(0x1002, Bytes().u32(type).u32(attributes).str());
}

uint32_t TypeStreamBuilder::array(uint32_t element, uint32_t index, uint16_t size,
                                  std::string_view name) {
  return add(0x1503, Bytes().u32(element).u32(index).u16(size).zstr(name).str());
}

uint32_t TypeStreamBuilder::arguments(const std::vector<uint32_t>& types) {
  Bytes payload;
  payload.u32(static_cast<uint32_t>(types.size()));
  for (const uint32_t type : types) payload.u32(type);
  return add(0x1201, payload.str());
}

// Result, calling convention, options, number of parameters, argument list.
uint32_t TypeStreamBuilder::procedure(uint32_t result, uint32_t arguments, uint16_t count) {
  return add(0x1008, Bytes().u32(result).u8(0).u8(0).u16(count).u32(arguments).str());
}

uint32_t TypeStreamBuilder::member_function(uint32_t result, uint32_t in_class, uint32_t this_type,
                                            uint32_t arguments, uint16_t count) {
  Bytes payload;
  payload.u32(result).u32(in_class).u32(this_type).u8(0).u8(0).u16(count).u32(arguments).u32(0);
  return add(0x1009, payload.str());
}

// Member count, options, field list, base list, vtable shape, size, name.
uint32_t TypeStreamBuilder::structure(std::string_view name, uint16_t size, uint16_t leaf) {
  return add(leaf, Bytes().u16(0).u16(0).u32(0).u32(0).u32(0).u16(size).zstr(name).str());
}

uint32_t TypeStreamBuilder::union_type(std::string_view name, uint16_t size) {
  return add(0x1506, Bytes().u16(0).u16(0).u32(0).u16(size).zstr(name).str());
}

uint32_t TypeStreamBuilder::enumeration(std::string_view name, uint32_t underlying) {
  return add(0x1507, Bytes().u16(0).u16(0).u32(underlying).u32(0).zstr(name).str());
}

uint32_t TypeStreamBuilder::function_id(std::string_view name, uint32_t type, uint32_t scope) {
  return add(0x1601, Bytes().u32(scope).u32(type).zstr(name).str());
}

uint32_t TypeStreamBuilder::member_function_id(std::string_view name, uint32_t type,
                                               uint32_t in_class) {
  return add(0x1602, Bytes().u32(in_class).u32(type).zstr(name).str());
}

uint32_t TypeStreamBuilder::string_id(std::string_view text, uint32_t before) {
  return add(0x1605, Bytes().u32(before).zstr(text).str());
}

uint32_t TypeStreamBuilder::string_list(const std::vector<uint32_t>& strings) {
  Bytes payload;
  payload.u32(static_cast<uint32_t>(strings.size()));
  for (const uint32_t string : strings) payload.u32(string);
  return add(0x1604, std::move(payload).str());
}

TypeStreamBuilder& TypeStreamBuilder::raw(std::string_view bytes) {
  records_.text(bytes);
  return *this;
}

TypeStreamBuilder& TypeStreamBuilder::override_max(uint32_t max) {
  max_ = max;
  return *this;
}

// Header: version, its own size, index range, size of the records; then for the hash stream its
// number (none), key size, bucket count and three empty ranges.
std::string TypeStreamBuilder::stream() const {
  Bytes bytes;
  bytes.reserve(56 + records_.size());
  bytes.u32(20040203).u32(56).u32(first_).u32(max_ != 0 ? max_ : next_index());
  bytes.u32(static_cast<uint32_t>(records_.size())).u16(0xFFFF).u16(0xFFFF);
  bytes.u32(4).u32(0x3FFFF).fill(24);
  return std::move(bytes.text(records_.str())).str();
}

std::string section_header(const Section& section) {
  Bytes name;
  name.text(std::string_view(section.name).substr(0, 8)).align(8);
  if (name.empty()) name.fill(8);
  Bytes bytes;
  bytes.text(name.str()).u32(section.virtual_size).u32(section.address);
  bytes.u32(section.raw_size).u32(section.raw_offset);
  return std::move(bytes.u32(0).u32(0).u16(0).u16(0).u32(section.characteristics)).str();
}

std::string omap_table(const std::vector<std::pair<uint32_t, uint32_t>>& pairs) {
  Bytes bytes;
  for (const auto& [from, to] : pairs) bytes.u32(from).u32(to);
  return std::move(bytes).str();
}

std::string fpo_record(const Fpo& fpo) {
  const int bits = (fpo.saved_regs & 7) | (fpo.uses_base_pointer ? 0x10 : 0);
  Bytes bytes;
  bytes.u32(fpo.start).u32(fpo.code_size).u32(fpo.locals).u16(fpo.params);
  return std::move(bytes.u8(fpo.prolog).u8(static_cast<uint8_t>(bits))).str();
}

std::string frame_data_record(const FrameData& frame) {
  Bytes bytes;
  bytes.u32(frame.start).u32(frame.code_size).u32(frame.locals).u32(frame.params);
  bytes.u32(frame.max_stack).u32(frame.program);
  return std::move(bytes.u16(frame.prolog).u16(frame.saved_regs).u32(frame.flags)).str();
}

}  // namespace builders
