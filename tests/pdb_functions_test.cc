// From a module's symbols and subsections to FILE, FUNC, line and PUBLIC records.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "symforge/src/emit/function_list.h"
#include "tests/pdb_text.h"

namespace test_support {

using namespace builders;
namespace {

// FUNC, PUBLIC and line records: everything behind the head of the file.
std::string records(const Conversion& result) {
  const size_t info = result.text.rfind("INFO SECTION");
  std::string rest = result.text.substr(result.text.find('\n', info) + 1);
  while (rest.starts_with("FILE")) rest.erase(0, rest.find('\n') + 1);
  return result.failure + rest;
}

// A PDB with one module and one file, changed by `change`; its records.
std::string recordsOf(const std::function<void(SmallPdb&, ModuleBuilder&, uint32_t file)>& change) {
  SmallPdb pdb;
  ModuleBuilder& module = pdb.add_module("a.obj");
  change(pdb, module, module.file(pdb.names.add("a.cc")));
  return records(convert(pdb));
}

TEST(SourceFilesTest, NumbersEveryEntryAndPrintsEachFileOnce) {
  SmallPdb pdb;
  const uint32_t a = pdb.names.add("a.h");
  const uint32_t b = pdb.names.add("b.h");
  const uint32_t c = pdb.names.add("c.h");
  ModuleBuilder& first = pdb.add_module("1");
  first.file(a, std::string(16, 'm'), 1);
  first.file(b);
  first.file(7777);  // no such name: the number stays unused
  ModuleBuilder& second = pdb.add_module("2");
  second.file(a, "odd");
  second.file(c);
  pdb.add_module("3").file(pdb.names.add("a.h"));  // another string of the same text
  EXPECT_EQ(convert(pdb).lines("FILE"), "FILE 1 a.h\nFILE 2 b.h\nFILE 5 c.h\nFILE 6 a.h\n");
}

TEST(ModuleStreamTest, WalksSubsections) {
  const std::string found = "FUNC 1:1000 4 0 f()\n1000 4 9 1\n";
  const std::string invalid = "Invalid subsection header detected";
  const struct {
    const char* what;
    std::vector<uint32_t> words;  // in front of the lines of the module's function
    std::string result;
  } cases[] = {
      {"another kind", {0xF3, 8, 1, 2}, found},
      {"a payload of no multiple of 4", {0xF3, 5, 1, 2}, found},
      // Only the header counts: what it announces is read as further headers.
      {"kind 0", {0, 999}, found},
      {"a negative kind", {0x800000F2, 999}, found},
      {"an end beyond the pages", {0xF3, 5000}, invalid},
      {"an end in the last page, behind the stream", {0xF3, 3000}, "FUNC 1:1000 4 0 f()\n"},
      {"a walk that comes back to where it was", {0xF3, 0xFFFFFFF8}, invalid},
  };
  const auto recordsWith = [](const std::function<void(ModuleBuilder&)>& change) {
    return recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t file) {
      module.proc({.name = "f", .length = 4, .type = pdb.type}).end();
      change(module);
      module.lines(1, 0, 4, file, {{0, 9}});
    });
  };
  for (const auto& c : cases) {
    Bytes bytes;
    for (const uint32_t word : c.words) bytes.u32(word);
    EXPECT_EQ(recordsWith([&](ModuleBuilder& m) { m.raw_subsections(bytes.str()); }), c.result)
        << c.what;
  }
  EXPECT_EQ(recordsWith([](ModuleBuilder& m) { m.signature(5); }),
            "Invalid module stream signature");
  EXPECT_EQ(recordsWith([](ModuleBuilder& m) { m.old_lines("12345678"); }), found);
}

TEST(ModuleFunctionsTest, MakesRecordsOfProceduresAndThunks) {
  EXPECT_EQ(recordsOf([](SmallPdb& pdb, ModuleBuilder& module, uint32_t) {
              module
                  .proc({.name = "local", .offset = 0x10, .length = 1, .type = pdb.type}, kLProc32)
                  .proc({.name = "by id", .offset = 0x20, .length = 1}, kGProc32Id)
                  .proc({.name = "__cdecl bare", .offset = 0x30, .length = 5})
                  .proc({.name = "empty", .offset = 0x40, .type = pdb.type})
                  .thunk({.name = "alone", .offset = 0x50, .length = 5})
                  .thunk({.name = "nested", .offset = 0x60, .length = 5}, 4)
                  .proc({.name = "nowhere", .section = 0, .offset = 7, .length = 2})
                  .symbol(0, "")
                  .proc({.name = "behind the end", .offset = 0x70, .length = 5});
            }),
            "FUNC 0:7 2 0 nowhere\n"
            "FUNC 1:1010 1 0 local()\n"
            "FUNC 1:1030 5 0 __cdecl bare\n"
            "FUNC 1:1040 0 0 empty()\n"
            "PUBLIC 1050 0 alone\n"
            "FUNC 1:1060 5 0 nested\n");
}

TEST(ModuleFunctionsDeathTest, DiesOfASiteWithoutItsFunction) {
  SmallPdb pdb;
  pdb.add_module("a").thunk({.name = "t", .length = 1}).inline_site(0x1000, Annotations());
  const std::string bytes = pdb.build().bytes;
  EXPECT_DEATH(convertAlone(bytes), "current_function != nullptr");
}

TEST(PublicSymbolsTest, KeepsFunctionsThatNoModuleHas) {
  EXPECT_EQ(recordsOf([](SmallPdb& pdb, ModuleBuilder& module, uint32_t) {
              module.proc({.name = "covering", .offset = 0x10, .length = 1, .type = pdb.type});
              pdb.public_function("covered", 1, 0x10)
                  .public_function("second", 1, 0x30)
                  .public_function("shadowed", 1, 0x30)
                  .public_function("no section", 0, 0x20)
                  .public_function("no such section", 2, 0x40);
              pdb.symbol_records.text(public_symbol("data", 1, 0x50, 0))
                  .text(public_symbol("both", 1, 0x60, 3))
                  .u16(4)
                  .u32(0);
              pdb.public_function("__cdecl last", 1, 0x20);
            }),
            "PUBLIC 20 0 no section\n"
            "FUNC 1:1010 1 0 covering()\n"
            "PUBLIC 1020 0 __cdecl last\n"
            "PUBLIC 1030 0 second\n");
}

// Where records stand is told by their file index.
symforge_internal::FunctionRecord recordAt(uint32_t segment, uint32_t rva, uint32_t type,
                                           uint32_t origin) {
  symforge_internal::FunctionRecord record;
  record.segment = segment;
  record.rva = rva;
  record.typeIndex = type;
  record.fileIndex = origin;
  return record;
}

void expectSameOrder(const symforge_internal::Functions& a, const symforge_internal::Functions& b) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i)
    ASSERT_EQ(a[i].fileIndex, b[i].fileIndex) << i << " of " << a.size();
}

// Lines go to the first record of an address, so the types put the records in order only here.
TEST(FunctionListTest, KeepsOneRecordAnAddress) {
  static constexpr char kLines[8] = {};
  const std::pair<std::vector<bool>, uint32_t> cases[] = {
      // which have lines, which is kept
      {{false, false, false}, 0},
      {{false, true, true}, 1},
      {{true, false, true}, 0},
      {{false, false, true}, 2},
  };
  for (const auto& [has_lines, kept] : cases) {
    symforge_internal::Functions list;
    for (uint32_t i = 0; i < has_lines.size(); ++i) {
      list.push_back(recordAt(1, 0, i, i));
      if (has_lines[i]) list[i].lines = {kLines, false};
    }
    symforge_internal::dropDuplicates(list);
    for (const auto& f : list) EXPECT_EQ(f.dropped(), f.fileIndex != kept) << kept;
  }
}

// Sorting keys and moving the records once must leave equal records where sorting them would.
TEST(FunctionListTest, SortsLikeAPlainSortOfTheRecords) {
  std::mt19937 random(4);
  for (const uint32_t size : {0, 1, 2, 15, 17, 100, 5000}) {
    symforge_internal::Functions list, plain;
    for (uint32_t i = 0; i < size; ++i) {
      const auto key = static_cast<uint32_t>(random());
      for (auto* functions : {&list, &plain})
        functions->push_back(recordAt(key % 3, key / 3 % 40, key / 120 % 2, i));
    }
    symforge_internal::sortFunctions(list);
    std::sort(plain.begin(), plain.end());
    expectSameOrder(list, plain);
  }
}

// Where a function without a section stands at a public one's offset, the order of a hash table
// decides which comes first.
TEST(FunctionListTest, MergesInTheOrderOfAHashTable) {
  constexpr uint32_t kSize = 600;
  std::mt19937 random(5);
  symforge_internal::Functions list, plain;
  symforge_internal::PublicFunctions globals;
  std::unordered_map<uint32_t, uint32_t> table;
  for (uint32_t i = 0; i < kSize; ++i) {
    for (auto* functions : {&list, &plain}) functions->push_back(recordAt(0, i / 2, 0, 1));
    const auto offset = static_cast<uint32_t>(random() % kSize);
    globals.insert({{}, offset, 0, false, false});
    table.emplace(offset, i);
  }
  for (const auto& entry : table) plain.push_back(recordAt(0, entry.first, 0, 0));
  symforge_internal::mergeGlobals(list, globals);
  std::sort(plain.begin(), plain.end());
  expectSameOrder(list, plain);
}

TEST(LineRecordsTest, GivesABlockToTheFunctionAtOrBehindItsStart) {
  struct Block {
    uint16_t section;
    uint32_t offset;
    std::vector<Line> lines;
    bool unknown_file = false;
  };
  const struct {
    const char* what;
    std::vector<Block> blocks;
    std::string lines;  // of f at 0x1010, 8 bytes, and g at 0x1020, 8 bytes
  } cases[] = {
      {"exact", {{1, 0x20, {{0, 1}}}}, "g 1020 8 1 1"},
      {"in front of all", {{1, 1, {{0, 1}}}}, "f 1010 8 1 1"},
      {"inside f", {{1, 0x14, {{0, 1}}}}, "g 1020 8 1 1"},
      {"behind all", {{1, 99, {{0, 1}}}}, "g 1020 8 1 1"},
      {"no section", {{0, 99, {{0, 1}}}}, "f 1010 8 1 1"},
      {"the first stays", {{1, 0x10, {{0, 1}}}, {1, 0x10, {{0, 2}}}}, "f 1010 8 1 1"},
      {"one from 0 does not stay", {{1, 0, {{0, 1}}}, {1, 0x10, {{0, 2}}}}, "f 1010 8 2 1"},
      {"an unknown file leaves room",
       {{1, 0x10, {{0, 1}}, true}, {1, 0x10, {{0, 2}}}},
       "f 1010 8 2 1"},
      {"without lines", {{1, 0x10, {}}, {1, 0x10, {{0, 2}}}}, ""},
      {"flags, unsorted and repeated offsets",
       {{1, 0x10, {{4, 0x80000005}, {4, 6}, {0, 0xFF000007}}}},
       "f 1014 0 5 1 1014 fffffffc 6 1 1010 8 7 1"},
      // 0x15 too far: moved down by 0x20
      {"last line behind the end", {{1, 0x10, {{0, 1}, {0x1D, 2}}}}, "f ff0 1d 1 1 100d b 2 1"},
      {"last line at a multiple of 16 behind the end", {{1, 0x10, {{0x18, 2}}}}, "f 1018 0 2 1"},
  };
  const auto linesOf = [](const std::function<void(ModuleBuilder&, uint32_t file)>& change) {
    const std::string found = recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t file) {
      module.proc({.name = "f", .offset = 0x10, .length = 8, .type = pdb.type}).end();
      module.proc({.name = "g", .offset = 0x20, .length = 8, .type = pdb.type}).end();
      change(module, file);
    });
    std::istringstream text(found);
    std::string lines, name;
    for (std::string line; std::getline(text, line);) {
      if (line.starts_with("FUNC"))
        name = line.substr(line.size() - 3, 1);
      else
        lines += (lines.empty() ? name : "") + " " + line;
    }
    return lines;
  };
  for (const auto& c : cases) {
    EXPECT_EQ(linesOf([&](ModuleBuilder& module, uint32_t file) {
                for (const Block& block : c.blocks)
                  module.lines(block.section, block.offset, 8, block.unknown_file ? 4 : file,
                               block.lines);
              }),
              c.lines)
        << c.what;
  }
  EXPECT_EQ(linesOf([](ModuleBuilder& module, uint32_t file) {
              module.lines(1, 0x10, 8, {{file, {{0, 1}}}, {file, {{4, 2}}}});
            }),
            "f 1010 8 1 1")
      << "only the first file of a block counts";
}

// What runs off a module's pages costs that module what is left of its lines, and nothing else.
TEST(LineRecordsTest, LosesOnlyTheModuleThatIsCutShort) {
  SmallPdb pdb;
  for (const uint32_t offset : {0x10u, 0x20u}) {
    ModuleBuilder& module = pdb.add_module("m");
    const uint32_t file = module.file(pdb.names.add("a.cc"));
    module.proc({.name = "f", .offset = offset, .length = 8, .type = pdb.type}).end();
    if (offset == 0x10)
      module.subsection(kLines, Bytes().u32(0x10).u16(1).u16(0).u32(8).u32(file).u32(5000).str());
    module.lines(1, offset, 8, file, {{0, 1}});
  }
  EXPECT_EQ(records(convert(pdb)), "FUNC 1:1010 8 0 f()\nFUNC 1:1020 8 0 f()\n1020 8 1 2\n");
}

TEST(PrintFunctionsTest, CleansTypedNames) {
  const struct {
    const char* name;
    const char* printed;
  } cases[] = {
      {"int __cdecl f", "int  f"},
      {"char * __ptr64 g", "char * g"},
      {"__ptr64", "__ptr64"},
      {"a __ptr64 __ptr64__cdecl", "a"},
      {"__cd__cdeclecl", ""},
      {"__cde __ptr64cl x", " x"},
      {"__stdcall __cdec", "__stdcall __cdec"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t) {
                module.proc({.name = c.name, .length = 1, .type = pdb.type});
              }),
              std::string("FUNC 1:1000 1 0 ") + c.printed + "()\n");
}

TEST(ParamSizesTest, PrefersNewFrameDataThenOldThenTheName) {
  const auto sizeOf = [](const std::function<void(SmallPdb&)>& change) {
    const std::string line = recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t) {
      module.proc({.name = "f", .length = 8, .type = pdb.type});
      change(pdb);
    });
    return line.substr(0, line.find('\n'));
  };
  const auto v2 = [](SmallPdb& p, uint32_t size) {
    p.frame_data({.start = 0x1000, .code_size = size, .params = 0x30});
  };
  const auto v1 = [](SmallPdb& p) { p.fpo({.start = 0x1000, .code_size = 8, .params = 3}); };
  const auto named = [](SmallPdb& p, const char* n) { p.public_function(n, 1, 0); };
  EXPECT_EQ(sizeOf([&](SmallPdb& p) { v2(p, 8), v1(p), named(p, "_f@4"); }),
            "FUNC 1:1000 8 30 f()");
  EXPECT_EQ(sizeOf([&](SmallPdb& p) { v2(p, 9), v1(p), named(p, "_f@4"); }), "FUNC 1:1000 8 c f()");
  const struct {
    const char* name;
    const char* size;
  } cases[] = {{"_f@12", "c"},        {"@f@12", "4"}, {"@f@8", "0"},         {"@f@4", "0"},
               {"_f", "0"},           {"@f", "0"},    {"_f@1x", "0"},        {"@12", "0"},
               {"_f@", "0"},          {"f@12", "0"},  {"_f@-1", "ffffffff"}, {"@f@-20", "0"},
               {"_f@@8", "8"},        {"@f@@9", "1"}, {"_f@ 12", "c"},       {"_f@4@12", "c"},
               {"_f@4294967297", "1"}};
  for (const auto& c : cases)
    EXPECT_EQ(sizeOf([&](SmallPdb& p) { named(p, c.name); }),
              std::string("FUNC 1:1000 8 ") + c.size + " f()")
        << c.name;
}

// Sections of the image before its rewrite, and the map to where code stands now.
TEST(OmapTest, MapsFunctionsAndLines) {
  const auto mapped = [](const std::vector<std::pair<uint32_t, uint32_t>>& map, bool toSource,
                         std::string* messages = nullptr) {
    SmallPdb pdb;
    pdb.original_section({.name = ".text", .address = 0x4000});
    pdb.omap_from(map);
    ModuleBuilder& module = pdb.add_module("a.obj");
    const uint32_t file = module.file(pdb.names.add("a.cc"));
    module.proc({.name = "f", .offset = 0x10, .length = 8, .type = pdb.type});
    module.lines(1, 0x10, 8, file, {{0, 1}, {4, 2}});
    pdb.lay_out();
    pdb.dbi.debug.omap_to_source = toSource ? 0 : kNoStream;
    pdb.msf.set_stream(3, pdb.dbi.bytes());
    const Conversion result = convert(pdb);
    if (messages != nullptr) *messages = result.messages;
    return records(result);
  };
  const std::string unmapped = "FUNC 1:4010 8 0 f()\n4010 4 1 1\n4014 4 2 1\n";
  EXPECT_EQ(mapped({{0x4010, 0x7000}}, false), unmapped);
  EXPECT_EQ(mapped({{0x5000, 0x7000}}, true), unmapped);
  EXPECT_EQ(mapped({{0x4010, 0x7000}}, true), "FUNC 1:7000 8 0 f()\n7000 4 1 1\n7004 4 2 1\n");
  EXPECT_EQ(mapped({{0x4000, 0x9000}, {0x4000, 0x7000}, {0x4012, 0x100}}, true),
            "FUNC 1:7010 8 0 f()\n7010 4 1 1\n102 4 2 1\n");
  EXPECT_EQ(mapped({{0x4000, 0}}, true), "FUNC 1:10 8 0 f()\n10 4 1 1\n14 4 2 1\n");
  std::string messages;
  mapped({{0x4010, 0x7000}, {0x4000, 0x8000}}, true, &messages);
  EXPECT_EQ(messages.find("Encountered unordered omap section: "), 0u);
  EXPECT_EQ(messages.back(), '.');
}

}  // namespace
}  // namespace test_support
