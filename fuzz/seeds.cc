// seeds DIRECTORY: writes the seed inputs of every fuzz target to DIRECTORY/TARGET/, small files
// that together contain every kind of record. They are generated and not committed, so that they
// follow the builders.

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>

#include "builders/arm64_unwind_builder.h"
#include "builders/bytes.h"
#include "builders/codeview_builder.h"
#include "builders/hostile.h"
#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"
#include "builders/symb_builder.h"
#include "tests/support/data.h"

namespace {

using namespace builders;

// Adds modules with lines, nested inline sites, a thunk, types of many kinds, and public functions.
void add_modules(PdbBuilder& pdb) {
  const uint32_t a = pdb.names.add("a.cc");
  const uint32_t h = pdb.names.add("b.h");
  const uint32_t pointer = pdb.types.pointer(0x74);
  const uint32_t structure = pdb.types.structure("S");
  const uint32_t element = pdb.types.array(pdb.types.modifier(structure, 1), 0x23, 80);
  const uint32_t list = pdb.types.arguments({pointer, element, pdb.types.union_type("U")});
  const uint32_t type = pdb.types.procedure(0x03, list, 3);
  const uint32_t method = pdb.types.member_function(pdb.types.enumeration("E"), structure,
                                                    pdb.types.pointer(structure), list, 3);
  const uint32_t inlined = pdb.ids.function_id("inlined", type);

  ModuleBuilder& first = pdb.add_module("first.obj");
  const uint32_t file = first.file(a, "0123456789abcdef", 1);
  const uint32_t header = first.file(h);
  first.proc({.name = "f", .offset = 0x10, .length = 0x40, .type = type})
      .inline_site(inlined, Annotations().op(11, 0x24).op(4, 8).op(6, 6).op(3, 4).op(12, 2, 5))
      .inline_site(inlined, Annotations().op(5, header).op(13, 2).op(4, 2).op(9, 1))
      .inline_site_end()
      .inline_site_end()
      .end();
  first.proc({.name = "g", .offset = 0x50, .length = 0x10, .type = method}, kLProc32).end();
  first.thunk({.name = "t", .offset = 0x60, .length = 6});
  first.lines(1, 0x10, 0x40,
              {{file, {{0, 1}, {4, 0x80000002}}}, {header, {{8, 3}, {12, 0xFEEFEE}}}});
  first.inlinees({{.inlinee = inlined, .file = header, .line = 7}});

  ModuleBuilder& second = pdb.add_module("second.obj");
  const uint32_t again = second.file(h);
  second.proc({.name = "f", .offset = 0x10, .length = 0x40, .type = type}).end();
  second.proc({.name = "_h", .section = 2, .offset = 0, .length = 8, .type = 0}).end();
  second.lines(2, 0, 8, again, {{0, 5}});
  second.inlinees({{.inlinee = inlined, .file = again, .line = 1, .extra_files = {again}}}, 1);
  pdb.public_function("_h@8", 2, 0).public_function("@fast@12", 2, 0x20);
  pdb.public_function("?name@@YAXXZ", 1, 0x70);
}

std::string pdb64(uint32_t page_size, PageOrder order) {
  PdbBuilder pdb(page_size);
  pdb.msf.order(order);
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x100, .raw_size = 0x200});
  pdb.section({.name = ".more", .address = 0x2000, .virtual_size = 0x100, .raw_size = 0x200});
  add_modules(pdb);
  return pdb.build().bytes;
}

std::string pdb32() {
  PdbBuilder pdb(512);
  pdb.dbi.machine = 0x14C;
  for (const uint32_t address : {0x1000u, 0x2000u}) {
    pdb.section({.name = ".text", .address = address, .virtual_size = 0x100, .raw_size = 0x200});
    pdb.original_section({.name = ".old", .address = address + 0x1000, .virtual_size = 0x100});
  }
  pdb.omap_from({{0, 0}, {0x2010, 0x1010}, {0x2030, 0}, {0x2040, 0x1040}, {0x3000, 0x2000}});
  add_modules(pdb);
  const uint32_t program = pdb.names.add("$T0 .raSearch = $eip $T0 ^ =");
  pdb.fpo({.start = 0x1010, .code_size = 0x40, .locals = 2, .params = 3, .prolog = 3});
  pdb.frame_data({.start = 0x1010, .code_size = 0x40, .params = 12, .program = program});
  pdb.frame_data({.start = 0x1020, .code_size = 0x10, .params = 12, .program = program});
  return pdb.build().bytes;
}

std::string image(bool pe32_plus) {
  PeBuilder pe(pe32_plus);
  const auto slot = [](uint8_t operation, uint8_t info) { return unwind_slot(4, operation, info); };
  pe.codeview({}, 1, "C:\\build\\a.pdb");
  const uint32_t chained = pe.unwind_info({.slots = {slot(kPushNonvol, 6), slot(kAllocSmall, 3)}});
  pe.function(0x1000, 0x1020, {.slots = {slot(kAllocLarge, 0), 0x20, slot(kPushNonvol, 3)}});
  pe.function(0x1020, 0x1040,
              {.frame_register = 5,
               .frame_offset = 1,
               .slots = {slot(kSetFpreg, 0), slot(kPushNonvol, 5), slot(kSaveNonvol, 7), 4}});
  pe.function(0x1040, 0x1050,
              {.flags = kUnwindChained,
               .slots = {slot(kSaveXmm128, 1), 2, slot(kPushMachframe, 1)},
               .chained = {0x1000, 0x1020, chained}});
  pe.function_entry({0x1050, 0x1060, PeBuilder::kFunctionsRva + 1});
  return pe.build();
}

// A block with nested ranges, preceded by the offsets of a range and of the end of the strings.
std::string frame_info() {
  SymbModel model;
  model.frame_info[4] = {{0, 99, "p", 0, {{0, 9, ""}, {10, 19, "q", 0, {{10, 11, ""}}}}}};
  const std::string block = model.bytes();
  const uint32_t root = get_u32(block, kSymbFrameInfo) + 4 * 64;
  Bytes input;
  input.u32(get_u32(block, root + 48));
  input.u32(get_u32(block, kSymbStringTable) + get_u32(block, kSymbStringTable + 8));
  return input.str() + block;
}

// An ARM64 image with packed entries, and records with and without epilogs.
std::string arm64_image() {
  PeBuilder pe;
  pe.machine(0xAA64).codeview({}, 1, "C:\\build\\a.pdb");
  const Arm64Xdata records[] = {
      {.length = 0x40, .epilogs = {{0x20, 0}, {0x2C, 1}}, .codes = "\xE1\x81\xE4"},
      {.length = 0x40, .extended = true, .single_epilog = 1, .codes = "\xE5\xE1\x81\xFC\xE4"},
      {.length = 0x80, .codes = "\xE3\xE6\xC8\x42\xDA\x43\xE7\x54\x03\xE2\x04\xC1\x10\xE4"},
      {.length = 0x40, .codes = "\xE8\xE4"},
  };
  uint32_t begin = 0x1000;
  for (const Arm64Xdata& record : records) {
    pe.arm64_entry(begin, pe.raw_unwind_info(record.bytes()));
    begin += record.length;
  }
  for (uint32_t cr = 0; cr < 4; ++cr) {
    pe.arm64_entry(begin, arm64_packed({.reg_f = cr, .reg_i = 5 - cr, .cr = cr, .frame = 160}));
    begin += 0x40;
  }
  pe.arm64_entry(begin, arm64_packed({.flag = 2, .homed = 1, .frame = 5120}));
  return pe.build();
}

// Files that cost much, for runs with large inputs.
void write_large_seeds(const std::filesystem::path& root) {
  constexpr size_t kBytes = 64 * 1024;
  for (const auto& files : {hostile_files(kBytes), hostile_standard_files(kBytes)}) {
    for (const HostileFile& file : files) {
      const char* target = "host_loads";
      if (file.name.ends_with(".pdb")) target = "pdb_to_text";
      if (file.name.ends_with(".exe")) target = "pe";
      if (file.name.ends_with(".symb")) target = "symb";
      std::filesystem::create_directories(root / target);
      write_file((root / target / file.name).string(), file.bytes);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::filesystem::path root = argv[1];
  const auto seed = [&](const char* target, const char* name, std::string_view bytes) {
    std::filesystem::create_directories(root / target);
    write_file(root / target / name, bytes);
  };
  seed("pdb_to_text", "x64", pdb64(512, PageOrder::kContiguous));
  seed("pdb_to_text", "x64_small_pages", pdb64(64, PageOrder::kInterleaved));
  seed("pdb_to_text", "x86", pdb32());
  for (const char* target : {"pe", "image_alone", "batch_pairing", "file_facts"}) {
    seed(target, "pe32_plus", image(true));
    seed(target, "pe32", image(false));
  }
  seed("batch_pairing", "pdb", pdb32());
  seed("file_facts", "pdb", pdb32());
  seed("tree_files", "text", test_support::test_data("round_trip.sym"));
  seed("tree_files", "outside",
       "MODULE windows x86 0123 ../a.pdb\nINFO CODE_ID 4567 a.exe\nPUBLIC 1 0 p\n");
  seed("unwind_rules", "x64", image(true));
  seed("unwind_rules", "arm64", arm64_image());
  for (const char* text : {"rich.sym", "rich_shuffled.sym", "round_trip.sym", "published_linux.sym",
                           "published_mac.sym"}) {
    for (const char* target : {"text_load_lookup", "round_trip", "lookup_agreement", "host_loads",
                               "embedding", "file_facts"}) {
      seed(target, text, test_support::test_data(text));
    }
  }
  for (const uint32_t version : {1, 2, 3}) {
    for (const char* target : {"symb", "host_loads", "embedding", "file_facts"}) {
      seed(target, ("version_" + std::to_string(version)).c_str(),
           rich_symb_model(version).bytes());
    }
  }
  seed("frame_info_check", "nested", frame_info());
  std::string operations;
  for (std::mt19937 random(1); operations.size() < 4096;) {
    operations.push_back(static_cast<char>(random()));
  }
  seed("range_containers", "random", operations);
  write_large_seeds(root / "large");
  return 0;
}
