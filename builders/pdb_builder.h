// PdbBuilder: a whole PDB from a description, and the builders of the streams that name its parts.
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
// Everything is public and may be changed until build(). What a test wants wrong is put in after
// lay_out(): another stream through pdb.msf.set_stream(number, bytes), other numbers in the DBI
// stream by changing pdb.dbi and then pdb.msf.set_stream(3, pdb.dbi.bytes()).

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

// The PDB info stream (stream 1): identity, and a hash table from names to streams.
struct InfoStream {
  Guid guid;
  uint32_t age = 1;
  uint32_t time_stamp = 0;
  std::vector<std::pair<std::string, uint32_t>> named_streams;
  // Slots of the table. 0: as many as there are names. Entries take the first slots.
  uint32_t capacity = 0;
  // Words of the present bitset that the table claims and writes. 0: as many as the capacity needs.
  uint32_t present_words = 0;
  std::vector<uint32_t> deleted_bits = {};  // words

  std::string bytes() const;
};

// The stream named /NAMES: strings, found by their offset.
class NamesBuilder {
 public:
  // Offset of the string; equal strings are stored again (each call makes a new entry).
  uint32_t add(std::string_view text);
  // The stream; `signature` and `version` for damaged ones.
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
  uint32_t symbols_size = 0;  // the stream's signature counts in it
  uint32_t old_lines_size = 0;
  uint32_t lines_size = 0;
};

// The numbers of the streams that the DBI stream's last table names.
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
  std::string section_contributions;  // this and the next four as bytes
  std::string section_map;
  std::string file_info;
  std::string type_server_map;
  std::string edit_and_continue;
  DebugHeader debug;
  // The size of the module records that the header gives, in place of the true one.
  std::optional<uint32_t> modules_size = {};

  std::string bytes() const;
};

class PdbBuilder {
 public:
  explicit PdbBuilder(uint32_t page_size = 4096) : msf(page_size) {}

  // A module with a stream of its own; the reference stays valid. `object` defaults to `name`.
  ModuleBuilder& add_module(std::string_view name, std::string_view object = {});
  // Numbered from 1 in the order of the calls.
  PdbBuilder& section(const Section& section);
  // The section table before a rewrite of the image, and the address map.
  PdbBuilder& original_section(const Section& section);
  PdbBuilder& omap_from(const std::vector<std::pair<uint32_t, uint32_t>>& pairs);
  PdbBuilder& public_function(std::string_view name, uint16_t section, uint32_t offset);
  PdbBuilder& fpo(const Fpo& record);
  PdbBuilder& frame_data(const FrameData& record);

  // Puts all streams into `msf` and fills in their numbers: 0 the old directory (empty), 1 info,
  // 2 types, 3 DBI, 4 ids, then those that have contents: /NAMES, symbol records, section headers,
  // the other tables, modules. Called by build(); call it first in order to damage a stream after.
  void lay_out();
  MsfFile build();
  // The stream of the n-th module; known after lay_out().
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

// The debug identifier's text: GUID in upper-case digits, age in lower-case ones.
std::string debug_id(const Guid& guid, uint32_t age);

}  // namespace builders
