#include "builders/hostile.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "builders/bytes.h"
#include "builders/codeview_builder.h"
#include "builders/hostile_parts.h"
#include "builders/msf_builder.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "builders/symb_builder.h"

namespace builders {

namespace {

std::string long_name(size_t size) { return std::string(size, 'n'); }

// The stream of public symbols consists of one page, named again and again by a directory in pages
// of numbers.
std::string repeated_page(size_t size) {
  PdbBuilder pdb = with_section(4096);
  while (pdb.symbol_records.size() < 4080) pdb.public_function("p", 1, 16);
  pdb.symbol_records.fill(4096 - pdb.symbol_records.size());
  pdb.lay_out();
  const uint32_t pages = count_of(size, 4);
  pdb.msf.override_size(pdb.dbi.symbol_records, pages * 4096);
  pdb.msf.override_pages(pdb.dbi.symbol_records, std::vector<uint32_t>(pages, 9));
  return built(pdb);
}

// Module records that all refer to one stream.
std::string shared_module_stream(size_t size) {
  PdbBuilder pdb = with_section();
  ModuleBuilder& module = pdb.add_module("m");
  for (uint32_t i = 0; i < count_of(size / 2, 48); ++i) {
    module.proc({.name = "f", .offset = 16 * i, .length = 16});
  }
  pdb.lay_out();
  const ModuleRecord record = pdb.dbi.modules[0];
  pdb.dbi.modules.assign(count_of(size / 2, 68), record);
  pdb.msf.set_stream(3, pdb.dbi.bytes());
  return built(pdb);
}

// Subsections of which every second one jumps back to the start of a longer walk.
std::string subsections_back(size_t size) {
  PdbBuilder pdb = with_section();
  ModuleBuilder& module = pdb.add_module("m");
  Bytes bytes;
  const uint32_t count = count_of(size, 16);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t at = 16 * i;
    // An empty subsection, and one whose size wraps to a header that was not a start before.
    bytes.u32(kLines).u32(0);
    bytes.u32(kFileChecksums).u32(i % 2 == 0 ? 0 : (at / 2 & ~uint32_t{7}) + 4 - (at + 20));
  }
  module.raw_subsections(bytes.str());
  return built(pdb);
}

// Names of functions that all end at one distant NUL.
std::string overlapping_names(size_t size) {
  constexpr uint16_t kRecord = 0x0101;
  PdbBuilder pdb = with_section();
  for (uint32_t i = 1; i < kRecord; ++i) pdb.section({.name = "s", .address = 0x1000});
  Bytes symbols;
  for (uint32_t i = 0; i < count_of(size, kRecord + 2); ++i) {
    symbols.u16(kRecord).u16(kGProc32).fill(32, 1).u16(kRecord).fill(kRecord - 36, 'n');
  }
  pdb.add_module("m").raw_symbols(symbols.u16(2).u16(kEnd).str());
  return built(pdb);
}

// Symbol records of two bytes, each the start of a function that extends into the following ones.
std::string dense_functions(size_t size) {
  PdbBuilder pdb = with_section();
  pdb.section({.name = "s", .address = 0x2000});
  Bytes symbols;
  for (uint32_t i = 0; i < count_of(size, 4); ++i) symbols.u16(2).u16(kThunk32);
  pdb.add_module("m").raw_symbols(symbols.fill(64).str());
  return built(pdb);
}

// Public symbols without a section, which are printed in the order of a hash table.
std::string public_symbols(const std::vector<uint32_t>& addresses) {
  PdbBuilder pdb = with_section();
  for (const uint32_t address : addresses) {
    pdb.symbol_records.u16(14).u16(kPub32).u32(2).u32(address).u16(0).u8('p').u8(0);
  }
  pdb.add_module("m").thunk({.name = "t", .section = 0, .offset = 1});
  return built(pdb);
}

std::string adjacent_publics(size_t size) {
  std::vector<uint32_t> addresses(count_of(size, 16));
  std::iota(addresses.begin(), addresses.end(), 0);
  return public_symbols(addresses);
}

// Half of the addresses belong to one bucket of the hash table in its final size.
std::string colliding_publics(size_t size) {
  std::vector<uint32_t> addresses(count_of(size, 16));
  std::iota(addresses.begin(), addresses.end(), 0);
  const auto buckets = static_cast<uint32_t>(
      std::unordered_set<uint32_t>(addresses.begin(), addresses.end()).bucket_count());
  const size_t first = addresses.size() / 2;
  for (size_t i = first; i < addresses.size() && (i - first + 2) < UINT32_MAX / buckets; ++i) {
    addresses[i] = static_cast<uint32_t>(i - first + 2) * buckets;
  }
  return public_symbols(addresses);
}

// Entries of named streams that share one long name.
std::string named_streams(size_t size) {
  PdbBuilder pdb = with_section();
  pdb.lay_out();
  const uint32_t names = count_of(size / 2, 1);
  const uint32_t entries = count_of(size / 2, 9);
  Bytes info;
  info.u32(20000404).u32(0).u32(1).text(guid_bytes({})).u32(names).text(long_name(names - 1)).u8(0);
  const uint32_t words = (entries + 31) / 32;
  info.u32(entries).u32(entries).u32(words).fill(4 * words, 0xFF).u32(0);
  for (uint32_t i = 0; i < entries; ++i) info.u32(i % names).u32(5);
  pdb.msf.set_stream(1, info.fill(512).str());
  return built(pdb);
}

// Frame data records that share one program string.
std::string shared_program(size_t size) {
  PdbBuilder pdb = with_section();
  const uint32_t program = pdb.names.add(long_name(size / 2));
  for (uint32_t i = 0; i < count_of(size / 2, 32); ++i) {
    pdb.frame_data({.start = 16 * i, .code_size = 16, .program = program});
  }
  return built(pdb);
}

// Inline sites that share one inlinee with a long name.
std::string inline_names(size_t size) {
  PdbBuilder pdb = with_section();
  pdb.ids.function_id(long_name(std::min<size_t>(size / 2, 60000)), 0);
  ModuleBuilder& module = pdb.add_module("m");
  module.proc({.name = "f", .offset = 0, .length = 0x1000000, .type = 0x1000});
  for (uint32_t i = 0; i < count_of(size / 2, 28); ++i) {
    module.inline_site(0x1000, Annotations().op(11, 0x14).op(4, 1)).inline_site_end();
  }
  return built(pdb);
}

// One function with a code range for every second byte of its annotations.
std::string inline_ranges(size_t size, const std::string& name) {
  PdbBuilder pdb = with_section();
  pdb.ids.function_id(name, 0);
  ModuleBuilder& module = pdb.add_module("m");
  module.proc({.name = "f", .offset = 0, .length = 0x1000000});
  Annotations annotations;
  for (uint32_t i = 0; i < 15000; ++i) annotations.op(3, 1).op(4, 1);
  for (uint32_t i = 0; i < count_of(size, 60000); ++i) {
    module.inline_site(0x1000, annotations).inline_site_end();
  }
  return built(pdb);
}

// Pointers of an unknown kind, with a warning for each rendering.
std::string warnings(size_t size) {
  PdbBuilder pdb = with_section();
  const uint32_t pointer = pdb.types.pointer(0x74, 7 << 5);
  std::vector<uint32_t> types(1000, pointer);
  const uint32_t function = pdb.types.procedure(3, pdb.types.arguments(types), 1000);
  ModuleBuilder& module = pdb.add_module("m");
  for (uint32_t i = 0; i < count_of(size, 48); ++i) {
    module.proc({.name = "f", .offset = 16 * i, .length = 16, .type = function});
  }
  return built(pdb);
}

// Nested argument lists: the text doubles at each level.
std::string type_tree(size_t size) {
  PdbBuilder pdb = with_section();
  uint32_t type = 0x74;
  for (int i = 0; i < 18; ++i) type = pdb.types.arguments({type, type});
  const uint32_t function = pdb.types.procedure(3, type, 2);
  ModuleBuilder& module = pdb.add_module("m");
  for (uint32_t i = 0; i < count_of(size, 48); ++i) {
    module.proc({.name = "f", .offset = 16 * i, .length = 16, .type = function});
  }
  return built(pdb);
}

std::string file_checksums(size_t size) {
  PdbBuilder pdb = with_section();
  ModuleBuilder& module = pdb.add_module("m");
  for (uint32_t i = 0; i < count_of(size, 8); ++i) module.file(i * 7919);
  return built(pdb);
}

// Blocks of lines that each claim all lines up to the end of the stream.
std::string overlapping_lines(size_t size) {
  PdbBuilder pdb = with_section();
  ModuleBuilder& module = pdb.add_module("m");
  const uint32_t count = count_of(size, 88);
  for (uint32_t i = 0; i < count; ++i) {
    module.proc({.name = "f", .offset = 16 * i, .length = 16, .type = 0x1000});
  }
  pdb.types.procedure(3, pdb.types.arguments({}), 0);
  const uint32_t file = module.file(pdb.names.add("a.cc"));
  for (uint32_t i = 0; i < count; ++i) {
    Bytes lines;
    lines.u32(16 * i).u16(1).u16(0).u32(16).u32(file).u32((count - i) * 32 / 8).u32(0);
    module.subsection(kLines, lines.str());
  }
  module.tail(std::string(4096, '\0'));
  return built(pdb);
}

// Pages of 64 bytes, none adjacent to the previous one of its stream.
std::string scattered_pages(size_t size) {
  PdbBuilder pdb = with_section(64);
  pdb.msf.order(PageOrder::kReversed);
  ModuleBuilder& module = pdb.add_module("m");
  for (uint32_t i = 0; i < count_of(std::min<size_t>(size, 48 * 1024), 64); ++i) {
    module.proc({.name = "f" + long_name(i % 13), .offset = 16 * i, .length = 16});
  }
  return built(pdb);
}

std::string cut_names(size_t) {
  PdbBuilder pdb = with_section();
  pdb.add_module("m").proc({.name = "f\nPUBLIC 1 0 forged\r", .length = 16});
  return built(pdb);
}

// Names in which removing a marker forms another one.
std::string nested_markers(size_t size) {
  PdbBuilder pdb = with_section();
  pdb.types.procedure(3, pdb.types.arguments({}), 0);
  ModuleBuilder& module = pdb.add_module("m");
  std::string name;
  for (int i = 0; i < 4000; ++i) name += "__cd";
  for (int i = 0; i < 4000; ++i) name += "__cdeclecl";
  for (uint32_t i = 0; i < count_of(size, name.size()); ++i) {
    module.proc({.name = name, .offset = 16 * i, .length = 16, .type = 0x1001});
  }
  return built(pdb);
}

const char kShared[] = "shared";

// The block of the model, with one long string in place of kShared.
std::string with_long_string(SymbModel model, size_t size) {
  model.os = long_name(size);
  model.arch = kShared;
  std::string bytes = model.bytes();
  const uint64_t long_string = get_u64(bytes, kSymbOs);
  const uint64_t shared = get_u64(bytes, kSymbOs + 8);
  for (size_t at = kSymbFiles; at + 8 <= bytes.size(); at += 8) {
    if (get_u64(bytes, at) == shared) put_u64(bytes, at, long_string);
  }
  return bytes;
}

SymbFunction symb_function(uint32_t address) {
  return {.address = address,
          .size = 16,
          .parameter_size = 0,
          .name = kShared,
          .lines = {{address, 16, 1, 1}},
          .sites = {}};
}

std::string symb_names(size_t size) {
  SymbModel model;
  for (uint32_t i = 0; i < count_of(size / 2, 64); ++i) {
    model.functions.push_back(symb_function(16 * i));
  }
  return with_long_string(model, size / 2);
}

std::string symb_rules(size_t size) {
  SymbModel model;
  for (uint32_t i = 0; i < count_of(size / 2, 16); ++i) {
    model.initial_rules.push_back({16 * i, 16, kShared});
  }
  return with_long_string(model, size / 2);
}

std::string symb_sites(size_t size) {
  SymbModel model;
  model.functions.push_back(symb_function(0));
  for (uint32_t i = 0; i < count_of(size / 2, 32); ++i) {
    model.functions[0].sites.push_back({i, 1, 1, 1, 0, kShared});
  }
  return with_long_string(model, size / 2);
}

// The shortest lines of a text.
std::string repeated_lines(size_t size, std::string_view head, std::string_view line) {
  std::string text = "MODULE windows x86 0123 a.pdb\n" + std::string(head);
  while (text.size() < size) text += line;
  return text;
}

std::string hex(uint32_t number) {
  constexpr char kHexDigits[] = "0123456789abcdef";
  std::string digits;
  for (; number != 0; number /= 16) digits.insert(0, 1, kHexDigits[number % 16]);
  return digits;
}

std::string numbered_lines(size_t size, std::string_view head, std::string_view before,
                           std::string_view after) {
  std::string text = "MODULE windows x86 0123 a.pdb\n" + std::string(head);
  for (uint32_t i = 1; text.size() < size; ++i) text.append(before).append(hex(i)).append(after);
  return text;
}

// Each range contains the next one.
std::string nested_frame_data(size_t size) {
  std::string text = "MODULE windows x86 0123 a.pdb\n";
  for (uint32_t i = 1; text.size() < size; ++i) {
    text += "STACK WIN 4 " + hex(i) + " " + hex(0x7FFFFFFF - 2 * i) + " 0 0 0 0 0 0 1 p\n";
  }
  return text;
}

// The 8 bytes whose std::hash has a value; the function is a bijection of these.
std::string text_of_hash(uint64_t hash) {
  constexpr uint64_t kMultiplier = 0xC6A4A7935BD1E995, kInverse = 0x5F7A0EA7E59B19BD;
  constexpr uint64_t kStart = 0xC70F6907 ^ 8 * kMultiplier;
  const auto mixed = [](uint64_t number) { return number ^ number >> 47; };  // its own inverse
  const uint64_t word = mixed(mixed(hash) * kInverse) * kInverse ^ kStart;
  Bytes bytes;
  bytes.u64(mixed(word * kInverse) * kInverse);
  return bytes.str();
}

// Distinct names, of which std::hash differs in the lower half only.
std::string colliding_names(size_t size) {
  std::string text = "MODULE windows x86 0123 a.pdb\n";
  for (uint64_t i = 1; text.size() < size; ++i) {
    const std::string name = text_of_hash(uint64_t{1} << 32 | i);
    if (name.find_first_of(std::string_view("\0\r\n \xFF", 5)) != name.npos) continue;
    text += "PUBLIC " + hex(static_cast<uint32_t>(i)) + " 0 " + name + "\n";
  }
  return text;
}

// Numbers of files that belong to one bucket of a hash table of the standard library.
std::string colliding_files(size_t size) {
  SymbModel model;
  SymbFunction function = symb_function(0);
  const uint32_t lines = count_of(size, 16);
  function.size = 16 + lines;
  const uint32_t files = std::min<uint32_t>(lines, 30000);
  std::unordered_set<int32_t> table;
  for (uint32_t i = 0; i < files; ++i) table.insert(static_cast<int32_t>(i));
  const size_t buckets = table.bucket_count();
  for (uint32_t i = 0; i < lines; ++i) {
    function.lines.push_back({16 + i, 1, static_cast<int32_t>(i % files * buckets), 1});
  }
  function.sites = {{16, 1, 1, 1, 0, "i"}};
  model.functions.push_back(function);
  return model.bytes();
}

// Entries that share one chain of unwind data.
std::string shared_unwind_chain(size_t size) {
  PeBuilder pe;
  pe.codeview({}, 1, "a.pdb");
  std::vector<uint16_t> slots(255, unwind_slot(1, kAllocSmall, 1));
  uint32_t chained = pe.unwind_info({.slots = slots});
  for (int i = 0; i < 30; ++i) {
    chained = pe.unwind_info({.flags = kUnwindChained, .slots = slots, .chained = {1, 2, chained}});
  }
  for (uint32_t i = 0; i < count_of(size, 12); ++i) pe.function_entry({i, i + 1, chained});
  return pe.build();
}

// Unwind data in the last one of as many sections as fit.
std::string many_sections(size_t size) {
  PeBuilder pe;
  pe.codeview({}, 1, "a.pdb");
  for (uint32_t i = 0; i < std::min<uint32_t>(count_of(size / 2, 40), 65000); ++i) {
    pe.section("s", 0, "");
  }
  const uint32_t unwind = pe.unwind_info({.slots = {unwind_slot(1, kAllocSmall, 1)}});
  for (uint32_t i = 0; i < count_of(size / 2, 12); ++i) pe.function_entry({i, i + 1, unwind});
  return pe.build();
}

// A sound PDB, to which the images belong.
std::string small_pdb() {
  PdbBuilder pdb = with_section();
  pdb.add_module("m").proc({.name = "f", .length = 16}).end();
  return built(pdb);
}

}  // namespace

std::vector<HostileFile> hostile_files(size_t size) {
  return {
      {"repeated_page.pdb", repeated_page(size)},
      {"shared_module_stream.pdb", shared_module_stream(size)},
      {"subsections_back.pdb", subsections_back(size)},
      {"overlapping_names.pdb", overlapping_names(size)},
      {"dense_functions.pdb", dense_functions(size)},
      {"public_symbols.pdb", adjacent_publics(size)},
      {"colliding_publics.pdb", colliding_publics(size)},
      {"named_streams.pdb", named_streams(size)},
      {"shared_program.pdb", shared_program(size)},
      {"inline_names.pdb", inline_names(size)},
      {"inline_ranges.pdb", inline_ranges(size, "i")},
      {"inline_ranges_of_long_name.pdb",
       inline_ranges(size, long_name(std::min<size_t>(size / 2, 60000)))},
      {"warnings.pdb", warnings(size)},
      {"type_tree.pdb", type_tree(size)},
      {"file_checksums.pdb", file_checksums(size)},
      {"overlapping_lines.pdb", overlapping_lines(size)},
      {"scattered_pages.pdb", scattered_pages(size)},
      {"cut_names.pdb", cut_names(size)},
      {"nested_markers.pdb", nested_markers(size)},
      {"symb_names.symb", symb_names(size)},
      {"symb_rules.symb", symb_rules(size)},
      {"symb_sites.symb", symb_sites(size)},
      {"lines.sym", repeated_lines(size, "FUNC 1 ffffff 0 f\n", "1 1 1 1\n")},
      {"functions.sym", numbered_lines(size, "", "FUNC ", "0 9 0 f\n")},
      {"publics.sym", numbered_lines(size, "", "PUBLIC ", " 0 p\n")},
      {"rules.sym", numbered_lines(size, "", "STACK CFI INIT ", "0 9 r\n")},
      {"files.sym", numbered_lines(size, "", "FILE ", " f\n")},
      {"inline_sites.sym",
       numbered_lines(size, "FUNC 0 ffffffff 0 f\n0 ffffffff 1 1\n", "I ", " 1 1 1 0 i\n")},
      {"call_ranges.sym", numbered_lines(size, "FUNC 0 ffffffff 0 f\nINLINE 0 1 1 1", " ", "0 1")},
      {"nested_frame_data.sym", nested_frame_data(size)},
      {"frame_data.sym", numbered_lines(size, "", "STACK WIN 4 ", "0 ff 0 0 0 0 0 0 1 p\n")},
      {"colliding_names.sym", colliding_names(size)},
      {"colliding_files.symb", colliding_files(size)},
      {"shared_unwind_chain.exe", shared_unwind_chain(size)},
      {"many_sections.exe", many_sections(size)},
      {"small.pdb", small_pdb()},
  };
}

}  // namespace builders
