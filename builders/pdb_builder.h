// PdbBuilder: builds a whole PDB, together with the builders of its identity and directory streams.
//
//   PdbBuilder pdb;
//   pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x100, .raw_size = 0x200});
//   ModuleBuilder& module = pdb.add_module("a.obj");
//   const uint32_t a = module.file(pdb.names.add("a.cc"));
//   module.proc({.name = "main", .section = 1, .offset = 0, .length = 8, .type = 0x1001}).end();
//   module.lines(1, 0, 8, a, {{0, 1}});
//   pdb.types.procedure(0x74, pdb.types.arguments({0x74}), 1);
//   write_file(path, pdb.build().bytes);
//
// All members are public and may be changed until build(). To damage a PDB, call lay_out() first.
// Then replace a stream with pdb.msf.set_stream(number, bytes), or change pdb.dbi and call
// pdb.msf.set_stream(3, pdb.dbi.bytes()).

#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "builders/bytes.h"
#include "builders/codeview_builder.h"
#include "builders/msf_builder.h"

namespace builders {

inline constexpr uint16_t kNoStream = 0xFFFF;

struct Guid {
  uint32_t data1 = 0x01234567;
  uint16_t data2 = 0x89AB;
  uint16_t data3 = 0xCDEF;
  std::array<uint8_t, 8> data4 = {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE};
};
std::string guid_bytes(const Guid& guid);

// The PDB info stream (stream 1): identity, and a hash table of stream numbers by name.
struct InfoStream {
  Guid guid;
  uint32_t age = 1;
  uint32_t time_stamp = 0;
  std::vector<std::pair<std::string, uint32_t>> named_streams;
  // Slots of the hash table; 0: the number of names. Entries are in the first slots.
  uint32_t capacity = 0;
  // Words of the bitset of present slots; 0: as many as the capacity needs.
  uint32_t present_words = 0;
  std::vector<uint32_t> deleted_bits = {};  // words

  std::string bytes() const;
};

// The stream /NAMES: strings, identified by their offset.
class NamesBuilder {
 public:
  // Adds a string and returns its offset. Equal strings are not merged.
  uint32_t add(std::string_view text);
  // The contents of the stream. `signature` and `version` can be set to wrong values.
  std::string stream(uint32_t signature = 0xEFFEEFFE, uint32_t version = 1) const;

 private:
  Bytes strings_ = Bytes().u8(0);
  std::vector<uint32_t> offsets_;
};

// One module's record in the DBI stream.
struct ModuleRecord {
  std::string name;
  std::string object;
  uint16_t stream = kNoStream;
  uint32_t symbols_size = 0;  // including the stream's signature
  uint32_t old_lines_size = 0;
  uint32_t lines_size = 0;
};

// The stream numbers in the last table of the DBI stream.
struct DebugHeader {
  uint16_t fpo = kNoStream;
  uint16_t exception = kNoStream;
  uint16_t fixup = kNoStream;
  uint16_t omap_to_source = kNoStream;
  uint16_t omap_from_source = kNoStream;
  uint16_t sections = kNoStream;
  uint16_t token_rid_map = kNoStream;
  uint16_t xdata = kNoStream;
  uint16_t pdata = kNoStream;
  uint16_t new_fpo = kNoStream;
  uint16_t sections_original = kNoStream;
};

// The DBI stream (stream 3).
struct DbiStream {
  uint32_t age = 1;
  uint16_t machine = 0x8664;
  uint16_t symbol_records = kNoStream;
  std::vector<ModuleRecord> modules;
  std::string section_contributions;  // this and the next four members are raw bytes
  std::string section_map;
  std::string file_info;
  std::string type_server_map;
  std::string edit_and_continue;
  DebugHeader debug;
  // Replaces the size of the module records in the header by a wrong value.
  std::optional<uint32_t> modules_size = {};

  std::string bytes() const;
};

class PdbBuilder {
 public:
  explicit PdbBuilder(uint32_t page_size = 4096) : msf(page_size) {}

  // Adds a module with its own stream. The reference stays valid. `object` defaults to `name`.
  ModuleBuilder& add_module(std::string_view name, std::string_view object = {});
  // Sections are numbered from 1 in the order of the calls.
  PdbBuilder& section(const Section& section);
  // The section table before the image was rewritten, and the address map.
  PdbBuilder& original_section(const Section& section);
  PdbBuilder& omap_from(const std::vector<std::pair<uint32_t, uint32_t>>& pairs);
  PdbBuilder& public_function(std::string_view name, uint16_t section, uint32_t offset);
  PdbBuilder& fpo(const Fpo& record);
  PdbBuilder& frame_data(const FrameData& record);

  // Adds all streams to `msf` and sets their numbers: 0 the old directory (empty), 1 info, 2 types,
  // 3 DBI, 4 ids, then those that are not empty: /NAMES, symbol records, section headers, the other
  // tables, modules. build() calls it; call it directly to damage a stream afterwards.
  void lay_out();
  MsfFile build();
  // The stream number of the n-th module. Valid after lay_out().
  uint32_t module_stream(size_t n) const { return dbi.modules.at(n).stream; }

  MsfBuilder msf;
  InfoStream info;
  DbiStream dbi;
  NamesBuilder names;
  TypeStreamBuilder types;
  TypeStreamBuilder ids;
  Bytes symbol_records;  // see public_symbol()

 private:
  uint16_t add_if_any(const Bytes& bytes);

  bool laid_out_ = false;
  std::deque<ModuleBuilder> modules_;
  Bytes sections_;
  Bytes original_sections_;
  Bytes omap_from_;
  Bytes fpo_;
  Bytes frame_data_;
};

// Formats a debug identifier: GUID in upper-case and age in lower-case hexadecimal.
std::string debug_id(const Guid& guid, uint32_t age);

}  // namespace builders
