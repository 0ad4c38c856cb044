// Builders of CodeView data, the contents of a PDB's streams: symbol records and C13 subsections
// (ModuleBuilder), inline site annotations (Annotations), type and id records (TypeStreamBuilder),
// public symbols, and the small tables (frame data, OMAP, section headers).

#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "builders/bytes.h"

namespace builders {

// Symbol record kinds.
inline constexpr uint16_t kEnd = 0x0006;
inline constexpr uint16_t kFrameProc = 0x1012;
inline constexpr uint16_t kObjName = 0x1101;
inline constexpr uint16_t kThunk32 = 0x1102;
inline constexpr uint16_t kBlock32 = 0x1103;
inline constexpr uint16_t kPub32 = 0x110E;
inline constexpr uint16_t kLProc32 = 0x110F;
inline constexpr uint16_t kGProc32 = 0x1110;
inline constexpr uint16_t kRegRel32 = 0x1111;
inline constexpr uint16_t kLProc32Id = 0x1146;
inline constexpr uint16_t kGProc32Id = 0x1147;
inline constexpr uint16_t kInlineSite = 0x114D;
inline constexpr uint16_t kInlineSiteEnd = 0x114E;
inline constexpr uint16_t kSepCode = 0x1132;
inline constexpr uint16_t kInlineSite2 = 0x115D;

// C13 subsection kinds.
inline constexpr uint32_t kLines = 0xF2;
inline constexpr uint32_t kFileChecksums = 0xF4;
inline constexpr uint32_t kInlineeLines = 0xF6;
inline constexpr uint32_t kCrossScopeImports = 0xF7;
inline constexpr uint32_t kCrossScopeExports = 0xF8;

// Encodes an integer in the compressed form of annotations: 1, 2 or 4 bytes. Below 0x20000000.
std::string compressed(uint32_t value);

// The annotation bytes of an inline site, one opcode with its operands per call:
//
//   Annotations().op(11, 0x24).op(4, 8)
class Annotations {
 public:
  Annotations& op(uint32_t opcode, uint32_t operand);
  Annotations& op(uint32_t opcode, uint32_t first, uint32_t second);
  Annotations& raw(std::string_view bytes);
  const std::string& bytes() const { return bytes_; }

  // Encodes a signed delta as an operand: the sign is in the lowest bit.
  static uint32_t signed_operand(int32_t delta);

 private:
  std::string bytes_;
};

// A procedure: section and offset, code size, type index.
struct Proc {
  std::string name;
  uint16_t section = 1;
  uint32_t offset = 0;
  uint32_t length = 0;
  uint32_t type = 0;
};

struct Line {
  uint32_t offset;  // code bytes from the start of the block
  uint32_t line;    // the line number in the low 24 bits; flags above
};

// One entry of an inlinee line subsection. `file` is a result of ModuleBuilder::file.
struct Inlinee {
  uint32_t inlinee;
  uint32_t file;
  uint32_t line;
  std::vector<uint32_t> extra_files = {};
};

// The stream of one module: signature, symbol records, subsections.
//
//   ModuleBuilder module;
//   uint32_t a = module.file(names.add("a.cc"));
//   module.proc({.name = "main", .section = 1, .offset = 0x10, .length = 0x20, .type = 0x1001})
//         .inline_site(0x1002, Annotations().op(11, 0x24).op(4, 8)).inline_site_end()
//         .end()
//         .lines(1, 0x10, 0x20, a, {{0, 1}, {4, 2}});
//
// File checksums are collected and written as one subsection before all others, unless
// checksums_here() sets its position.
class ModuleBuilder {
 public:
  // Symbol records. Each is padded to a multiple of 4 with zeros, which its size includes.
  ModuleBuilder& proc(const Proc& proc, uint16_t kind = kGProc32);
  // `parent` is not 0 for a nested thunk.
  ModuleBuilder& thunk(const Proc& thunk, uint32_t parent = 0);
  ModuleBuilder& inline_site(uint32_t inlinee, const Annotations& annotations);
  // The second form of an inline site record, with a count of invocations.
  ModuleBuilder& inline_site2(uint32_t inlinee, const Annotations& annotations);
  // Code of `length` bytes that was separated from the function at `function`; both in section 1.
  ModuleBuilder& separated_code(uint32_t offset, uint32_t length, uint32_t function);
  ModuleBuilder& inline_site_end() { return symbol(kInlineSiteEnd, {}); }
  ModuleBuilder& end() { return symbol(kEnd, {}); }
  // Any record: adds size and kind before `body`, and padding after it.
  ModuleBuilder& symbol(uint16_t kind, std::string_view body);
  // Unchanged bytes, for malformed records.
  ModuleBuilder& raw_symbols(std::string_view bytes);

  // Adds a file: the offset of its name in the /NAMES stream, and its checksum. Returns its offset
  // in the checksum subsection, by which lines and inlinees refer to it.
  uint32_t file(uint32_t name, std::string_view checksum = {}, uint8_t kind = 0);
  ModuleBuilder& checksums_here();
  // A line subsection with one block of one file.
  ModuleBuilder& lines(uint16_t section, uint32_t offset, uint32_t length, uint32_t file,
                       const std::vector<Line>& lines);
  // As above, with one block per file.
  ModuleBuilder& lines(uint16_t section, uint32_t offset, uint32_t length,
                       const std::vector<std::pair<uint32_t, std::vector<Line>>>& blocks);
  // An inlinee line subsection. Signature 1 writes the extra files of each entry.
  ModuleBuilder& inlinees(const std::vector<Inlinee>& inlinees, uint32_t signature = 0);
  // Any subsection: adds kind and size before the payload, and padding to 4 after it.
  ModuleBuilder& subsection(uint32_t kind, std::string_view payload);
  ModuleBuilder& raw_subsections(std::string_view bytes);

  ModuleBuilder& signature(uint32_t signature);
  // Old-style (C11) line data, between symbols and subsections.
  ModuleBuilder& old_lines(std::string_view bytes);
  // Bytes after the subsections; in real files a table of references to global symbols.
  ModuleBuilder& tail(std::string_view bytes);

  // The values for the module's record in the DBI stream.
  uint32_t symbols_size() const { return 4 + static_cast<uint32_t>(symbols_.size()); }
  uint32_t old_lines_size() const { return static_cast<uint32_t>(old_lines_.size()); }
  uint32_t subsections_size() const { return static_cast<uint32_t>(subsections().size()); }
  std::string stream() const;

 private:
  std::string subsections() const;

  uint32_t signature_ = 4;
  Bytes symbols_;
  std::string old_lines_;
  Bytes checksums_;
  bool checksums_placed_ = false;
  Bytes subsections_;
  std::string tail_;
};

// A public symbol record (S_PUB32), padded to 4 with zeros; `flags` 2 marks a function.
std::string public_symbol(std::string_view name, uint16_t section, uint32_t offset,
                          uint32_t flags = 2);

// How the gap between a type record and the next multiple of 4 is filled.
enum class TypePadding {
  kCounted,  // F3 F2 F1, included in the record's length: what linkers write
  kZeros,    // zeros after the record, not included in its length
  kNone,     // no gap: the next record follows directly
};

// A type or id stream: header, then records, numbered from `first`.
class TypeStreamBuilder {
 public:
  explicit TypeStreamBuilder(uint32_t first = 0x1000) : first_(first) {}

  // Any record: the leaf kind and its contents. Returns the record's index.
  uint32_t add(uint16_t leaf, std::string_view payload,
               TypePadding padding = TypePadding::kCounted);
  uint32_t modifier(uint32_t type, uint16_t attributes);
  uint32_t pointer(uint32_t type, uint32_t attributes = 0x1000C);
  uint32_t array(uint32_t element, uint32_t index, uint16_t size, std::string_view name = {});
  uint32_t arguments(const std::vector<uint32_t>& types);
  uint32_t procedure(uint32_t result, uint32_t arguments, uint16_t count);
  uint32_t member_function(uint32_t result, uint32_t in_class, uint32_t this_type,
                           uint32_t arguments, uint16_t count);
  // LF_CLASS or LF_STRUCTURE with the size in its short form.
  uint32_t structure(std::string_view name, uint16_t size = 8, uint16_t leaf = 0x1505);
  uint32_t union_type(std::string_view name, uint16_t size = 8);
  uint32_t enumeration(std::string_view name, uint32_t underlying = 0x74);
  uint32_t function_id(std::string_view name, uint32_t type, uint32_t scope = 0);
  uint32_t member_function_id(std::string_view name, uint32_t type, uint32_t in_class);
  // A string that follows the strings of the list `before`, a result of string_list().
  uint32_t string_id(std::string_view text, uint32_t before = 0);
  uint32_t string_list(const std::vector<uint32_t>& strings);

  TypeStreamBuilder& raw(std::string_view bytes);
  // Sets the index limit in the header to a wrong value.
  TypeStreamBuilder& override_max(uint32_t max);

  uint32_t next_index() const { return first_ + count_; }
  std::string stream() const;

 private:
  uint32_t first_;
  uint32_t count_ = 0;
  uint32_t max_ = 0;
  Bytes records_;
};

// The 40 bytes of a section header.
struct Section {
  std::string name;
  uint32_t address = 0;  // RVA
  uint32_t virtual_size = 0;
  uint32_t raw_size = 0;
  uint32_t raw_offset = 0;
  uint32_t characteristics = 0x60000020;
};
std::string section_header(const Section& section);

// OMAP: pairs of an address and the address it is mapped to.
std::string omap_table(const std::vector<std::pair<uint32_t, uint32_t>>& pairs);

// Old frame data (16 bytes); sizes of locals and parameters are in 4-byte words.
struct Fpo {
  uint32_t start = 0;
  uint32_t code_size = 0;
  uint32_t locals = 0;
  uint16_t params = 0;
  uint8_t prolog = 0;
  uint8_t saved_regs = 0;  // 3 bits
  bool uses_base_pointer = false;
};
std::string fpo_record(const Fpo& fpo);

// New frame data (32 bytes); sizes are in bytes.
struct FrameData {
  uint32_t start = 0;
  uint32_t code_size = 0;
  uint32_t locals = 0;
  uint32_t params = 0;
  uint32_t max_stack = 0;
  uint32_t program = 0;  // offset in the /NAMES stream
  uint16_t prolog = 0;
  uint16_t saved_regs = 0;
  uint32_t flags = 0;
};
std::string frame_data_record(const FrameData& frame);

}  // namespace builders
