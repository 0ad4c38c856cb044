// From a module's symbols and subsections to FILE, FUNC, line and PUBLIC records.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "builders/pe_builder.h"
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
  const std::string eight = Bytes().u32(1).u32(2).str();
  const auto convertWith = [&](const std::function<void(ModuleBuilder&)>& change) {
    return recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t file) {
      module.proc({.name = "f", .length = 4, .type = pdb.type}).end();
      change(module);
      module.lines(1, 0, 4, file, {{0, 9}});
    });
  };
  const std::string found = "FUNC 1:1000 4 0 f()\n1000 4 9 1\n";
  const struct {
    const char* what;
    std::function<void(ModuleBuilder&)> change;
    std::string result;
  } cases[] = {
      {"another kind", [&](ModuleBuilder& m) { m.subsection(0xF3, eight); }, found},
      {"a payload of no multiple of 4", [&](ModuleBuilder& m) { m.subsection(0xF3, "abcde"); },
       found},
      // Only the header counts: what it announces is read as further headers.
      {"kind 0", [](ModuleBuilder& m) { m.raw_subsections(Bytes().u32(0).u32(999).str()); }, found},
      {"a negative kind",
       [](ModuleBuilder& m) { m.raw_subsections(Bytes().u32(0x800000F2).u32(999).str()); }, found},
      {"an end beyond the pages",
       [](ModuleBuilder& m) { m.raw_subsections(Bytes().u32(0xF3).u32(5000).str()); },
       "Invalid subsection header detected"},
      {"an end in the last page, behind the stream",
       [](ModuleBuilder& m) { m.raw_subsections(Bytes().u32(0xF3).u32(3000).str()); },
       "FUNC 1:1000 4 0 f()\n"},
      {"a walk that comes back to where it was",
       [](ModuleBuilder& m) { m.raw_subsections(Bytes().u32(0xF3).u32(0xFFFFFFF8).str()); },
       "Invalid subsection header detected"},
      {"a signature", [](ModuleBuilder& m) { m.signature(5); }, "Invalid module stream signature"},
      {"old lines", [](ModuleBuilder& m) { m.old_lines("12345678"); }, found},
  };
  for (const auto& c : cases) EXPECT_EQ(convertWith(c.change), c.result) << c.what;
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

TEST(FoldingTest, KeepsOneRecordAnAddress) {
  const struct {
    std::vector<std::string> names;  // "+" in front: has lines
    std::string kept;
  } cases[] = {
      {{"a", "b", "c"}, "a"},
      {{"a", "+b", "+c"}, "b"},
      {{"+a", "b", "+c"}, "a"},
      {{"a", "b", "+c"}, "c"},
  };
  // Lines go to the first record of an address, so the types put the records in order only here.
  for (const auto& c : cases) {
    google_breakpad::Functions list(c.names.size());
    static constexpr char kLines[8] = {};
    for (size_t i = 0; i < list.size(); ++i) {
      list[i].name = {c.names[i].c_str(), false};
      list[i].segment = 1;
      list[i].typeIndex = static_cast<uint32_t>(i);
      if (c.names[i][0] == '+') list[i].lines = {kLines, false};
    }
    google_breakpad::dropDuplicates(list);
    std::string kept;
    for (const auto& f : list)
      if (!f.dropped()) kept += f.name.data;
    EXPECT_EQ(kept.substr(kept[0] == '+'), c.kept);
  }
}

// A record with nothing but its keys, and its origin: what the list's operations must agree with
// when they are done the plain way.
struct Plain {
  uint32_t segment, offset, type, origin;
  bool operator<(const Plain& o) const {
    return std::tie(segment, offset, type) < std::tie(o.segment, o.offset, o.type);
  }
};

void expectOrder(const google_breakpad::Functions& list, std::vector<Plain> plain) {
  std::sort(plain.begin(), plain.end());
  ASSERT_EQ(list.size(), plain.size());
  for (size_t i = 0; i < plain.size(); ++i)
    ASSERT_EQ(list[i].fileIndex, plain[i].origin) << i << " of " << plain.size();
}

// Sorting keys and moving the records once must leave equal records where sorting them would.
TEST(FunctionListTest, SortsLikeAPlainSortOfTheRecords) {
  std::mt19937 random(4);
  for (const uint32_t size : {0, 1, 2, 15, 17, 100, 5000}) {
    google_breakpad::Functions list(size);
    std::vector<Plain> plain;
    for (uint32_t i = 0; i < size; ++i) {
      google_breakpad::FunctionRecord& f = list[i];
      f.segment = static_cast<uint32_t>(random() % 3);
      f.offset = static_cast<uint32_t>(random() % 40);
      f.typeIndex = static_cast<uint32_t>(random() % 2);
      f.fileIndex = i;
      plain.push_back({f.segment, f.offset, f.typeIndex, i});
    }
    google_breakpad::sortFunctions(list);
    expectOrder(list, plain);
  }
}

// Where a function without a section stands at a public one's offset, the order of a hash table
// decides which comes first.
TEST(FunctionListTest, MergesInTheOrderOfAHashTable) {
  constexpr uint32_t kSize = 600;
  std::mt19937 random(5);
  google_breakpad::Functions list(kSize);
  google_breakpad::Globals globals;
  std::unordered_map<uint32_t, uint32_t> table;
  std::vector<Plain> plain;
  for (uint32_t i = 0; i < kSize; ++i) {
    list[i].offset = i / 2;
    list[i].fileIndex = 1;
    plain.push_back({0, i / 2, 0, 1});
    const auto offset = static_cast<uint32_t>(random() % kSize);
    globals.insert({{}, offset, 0, false, false});
    table.emplace(offset, i);
  }
  for (const auto& entry : table) plain.push_back({0, entry.first, 0, 0});
  google_breakpad::mergeGlobals(list, globals);
  expectOrder(list, plain);
}

TEST(LineRecordsTest, GivesABlockToTheFunctionAtOrBehindItsStart) {
  using Change = std::function<void(ModuleBuilder&, uint32_t)>;
  const struct {
    const char* what;
    Change change;
    std::string lines;  // of f at 0x1010, 8 bytes, and g at 0x1020, 8 bytes
  } cases[] = {
      {"exact",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x20, 8, file, {{0, 1}});
       },
       "g 1020 8 1 1"},
      {"in front of all",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 1, 8, file, {{0, 1}});
       },
       "f 1010 8 1 1"},
      {"inside f",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x14, 8, file, {{0, 1}});
       },
       "g 1020 8 1 1"},
      {"behind all",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 99, 8, file, {{0, 1}});
       },
       "g 1020 8 1 1"},
      {"no section",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(0, 99, 8, file, {{0, 1}});
       },
       "f 1010 8 1 1"},
      {"the first block stays",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x10, 8, file, {{0, 1}}).lines(1, 0x10, 8, file, {{0, 2}});
       },
       "f 1010 8 1 1"},
      {"a block from 0 does not stay",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0, 8, file, {{0, 1}}).lines(1, 0x10, 8, file, {{0, 2}});
       },
       "f 1010 8 2 1"},
      {"an unknown file leaves room",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x10, 8, 4, {{0, 1}}).lines(1, 0x10, 8, file, {{0, 2}});
       },
       "f 1010 8 2 1"},
      {"only the first file counts",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x10, 8, {{file, {{0, 1}}}, {file, {{4, 2}}}});
       },
       "f 1010 8 1 1"},
      {"a block without lines",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x10, 8, file, std::vector<Line>()).lines(1, 0x10, 8, file, {{0, 2}});
       },
       ""},
      {"flags, unsorted and repeated offsets",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x10, 8, file, {{4, 0x80000005}, {4, 6}, {0, 0xFF000007}});
       },
       "f 1014 0 5 1 1014 fffffffc 6 1 1010 8 7 1"},
      {"last line behind the end",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x10, 8, file, {{0, 1}, {0x1D, 2}});
       },
       "f ff0 1d 1 1 100d b 2 1"},  // 0x15 too far: moved down by 0x20
      {"last line at a multiple of 16 behind the end",
       [](ModuleBuilder& m, uint32_t file) {
         m.lines(1, 0x10, 8, file, {{0x18, 2}});
       },
       "f 1018 0 2 1"},
  };
  for (const auto& c : cases) {
    const std::string found = recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t file) {
      module.proc({.name = "f", .offset = 0x10, .length = 8, .type = pdb.type}).end();
      module.proc({.name = "g", .offset = 0x20, .length = 8, .type = pdb.type}).end();
      c.change(module, file);
    });
    std::string lines;
    std::string name;
    for (size_t at = 0; at < found.size(); at = found.find('\n', at) + 1) {
      const std::string line = found.substr(at, found.find('\n', at) - at);
      if (line.starts_with("FUNC"))
        name = line.substr(line.size() - 3, 1);
      else
        lines += (lines.empty() ? name : "") + " " + line;
    }
    EXPECT_EQ(lines, c.lines) << c.what;
  }
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
  } cases[] = {{"_f@12", "c"},        {"@f@12", "4"},  {"@f@4", "0"}, {"_f", "0"},
               {"_f@1x", "0"},        {"@12", "0"},    {"_f@", "0"},  {"f@4", "0"},
               {"_f@-1", "ffffffff"}, {"@f@-20", "0"}, {"_f@@8", "8"}};
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
