// Complete texts in the standard format.

#include <string>

#include "tests/pdb_text.h"
#include "tests/support/data.h"

namespace test_support {
namespace {

using symforge_internal::StandardCounts;

constexpr uint32_t kInt = 0x74;

uint32_t both(uint32_t code, int32_t line) { return Annotations::signed_operand(line) << 4 | code; }

// The lines of a PDB except its MODULE line.
std::string standard(PdbBuilder& pdb, StandardCounts* counts = nullptr) {
  const Conversion result = convertAlone(pdb.build().bytes, Format::kStandard, counts);
  EXPECT_EQ(result.failure, "");
  return lines_without(result.text, {"MODULE "});
}

// A section of the expected texts.
std::string text_of(const std::string& test) {
  const std::string texts = "\n" + test_data("standard_texts.txt");
  const size_t begin = texts.find("\n[" + test + "]\n") + test.size() + 4;
  return texts.substr(begin, texts.find("\n[", begin) + 1 - begin);
}

// A PDB with one module and two files, and the data for its functions.
struct ModulePdb : SmallPdb {
  ModulePdb()
      : module(add_module("a.obj")),
        unused(module.file(names.add("unused.cc"))),
        header(module.file(names.add("b.h"))),
        source(module.file(names.add("a.cc"))),
        inlinee(ids.function_id("inner", type, ids.string_id("space"))) {}

  ModuleBuilder& function(std::string_view name, uint32_t offset, uint32_t length) {
    return module.proc(
        {.name = std::string(name), .offset = offset, .length = length, .type = type});
  }
  // A function with a call of `inner`, which begins in line 70 of b.h.
  void caller(std::string_view name, uint32_t offset, uint32_t length, const Annotations& call) {
    function(name, offset, length).inline_site(inlinee, call).inline_site_end().end();
    module.inlinees({{inlinee, header, 70}});
  }

  ModuleBuilder& module;
  uint32_t unused;
  uint32_t header;
  uint32_t source;
  uint32_t inlinee;
};

TEST(StandardText, NumbersOnlyFilesAndOriginsThatAreReferredTo) {
  ModulePdb pdb;
  const uint32_t method =
      pdb.ids.member_function_id("{dtor}", pdb.type, pdb.types.structure("space::Box<int>"));
  pdb.ids.function_id("never", pdb.type);
  pdb.function("outer", 0, 0x40)
      .inline_site(pdb.inlinee, Annotations().op(11, both(8, 1)).op(4, 0x10))
      .inline_site2(method, Annotations().op(5, pdb.source).op(12, 4, 0xC))
      .inline_site_end()
      .inline_site_end()
      .inline_site(pdb.inlinee, Annotations().op(12, 8, 0x20))
      .inline_site_end()
      .end();
  pdb.module.lines(1, 0, 0x40, pdb.source, {{0, 5}, {8, 6}, {0x30, 7}});
  pdb.module.inlinees({{pdb.inlinee, pdb.header, 70}, {method, pdb.header, 80}});
  StandardCounts counts;
  EXPECT_EQ(standard(pdb, &counts), text_of("NumbersOnlyFilesAndOriginsThatAreReferredTo"));
  EXPECT_EQ(counts.inlinedCalls, 3u);
  EXPECT_EQ(counts.origins, 2u);
  EXPECT_EQ(counts.damagedModules + counts.damagedBlocks + counts.unnamedInlinees, 0u);
}

TEST(StandardText, ACallWithoutANameCountsAsItsCaller) {
  ModulePdb pdb;
  pdb.function("outer", 0, 0x20)
      .inline_site(0x1FFF, Annotations().op(12, 0x10, 0))
      .inline_site(pdb.inlinee, Annotations().op(12, 4, 4))
      .inline_site_end()
      .inline_site_end()
      .end();
  pdb.module.lines(1, 0, 0x20, pdb.source, {{0, 5}});
  pdb.module.inlinees({{pdb.inlinee, pdb.header, 70}});
  StandardCounts counts;
  EXPECT_EQ(lines_with(standard(pdb, &counts), {"INLINE "}), "INLINE 0 5 1 0 1004 4\n");
  EXPECT_EQ(counts.unnamedInlinees, 1u);
}

TEST(StandardText, ACallerWithoutALineHasTheFileOfTheCallee) {
  ModulePdb pdb;
  pdb.caller("outer", 0, 0x20, Annotations().op(12, 4, 4));
  EXPECT_EQ(standard(pdb), text_of("ACallerWithoutALineHasTheFileOfTheCallee"));
}

// Imported items: the import list contains the name of the exporting module in lower case.
TEST(StandardText, FollowsItemsOfOtherModules) {
  ModulePdb pdb;
  const uint32_t name = pdb.names.add("c:\\exporter.obj");
  constexpr uint32_t kSecondImport = 0x80000001;
  pdb.function("outer", 0, 0x20)
      .inline_site(kSecondImport, Annotations().op(12, 4, 4))
      .inline_site_end()
      .inline_site(0x80000002, Annotations().op(12, 4, 8))
      .inline_site_end()
      .end();
  pdb.module.lines(1, 0, 0x20, pdb.source, {{0, 5}});
  pdb.module.inlinees({{kSecondImport, pdb.header, 70}});
  pdb.module.subsection(kCrossScopeImports, Bytes().u32(name).u32(2).u32(0x10).u32(0x11).str());
  pdb.add_module("C:\\Exporter.obj")
      .subsection(kCrossScopeExports,
                  Bytes().u32(0x10).u32(0x1FFF).u32(0x11).u32(pdb.inlinee).str());
  StandardCounts counts;
  EXPECT_EQ(lines_with(standard(pdb, &counts), {"INLINE"}),
            "INLINE_ORIGIN 0 space::inner()\nINLINE 0 5 1 0 1004 4\n");
  EXPECT_EQ(counts.unnamedInlinees, 1u);
}

// Functions with the same name and type share an item.
TEST(StandardText, ModulesHaveInlineesOfTheirOwn) {
  ModulePdb pdb;
  const Annotations annotations = Annotations().op(12, 4, 4);
  pdb.caller("first", 0, 0x20, annotations);
  ModuleBuilder& other = pdb.add_module("b.obj");
  const uint32_t file = other.file(pdb.names.add("other.h"));
  other.proc({.name = "second", .offset = 0x20, .length = 0x20, .type = pdb.type})
      .inline_site(pdb.inlinee, annotations)
      .inline_site_end()
      .end();
  other.inlinees({{pdb.inlinee, file, 90, {file}}}, 1);
  EXPECT_EQ(lines_without(standard(pdb), {"FUNC ", "INLINE"}),
            "FILE 1 b.h\nFILE 2 other.h\n1004 4 70 1\n1024 4 90 2\n");
}

TEST(StandardText, MarksCodeThatFunctionsShare) {
  const struct {
    const char* what;
    void (*add)(ModulePdb&);
    const char* text;
  } cases[] = {
      {"two names, each with its lines",
       [](ModulePdb& pdb) {
         pdb.function("two", 0, 8).end();
         pdb.module.lines(1, 0, 8, pdb.source, {{0, 5}});
         pdb.module.lines(1, 0, 8, pdb.source, {{0, 50}});
       },
       "FILE 1 a.cc\nFUNC m 1000 8 0 one()\n1000 8 5 1\n"},
      {"one name twice", [](ModulePdb& pdb) { pdb.function("one", 0, 8).end(); },
       "FUNC 1000 8 0 one()\n"},
      {"overloads",
       [](ModulePdb& pdb) {
         const uint32_t other = pdb.types.procedure(kInt, pdb.types.arguments({kInt}), 1);
         pdb.module.proc({.name = "one", .offset = 0, .length = 8, .type = other}).end();
       },
       "FUNC m 1000 8 0 one()\n"},
      {"the one with lines is shown",
       [](ModulePdb& pdb) {
         ModuleBuilder& other = pdb.add_module("b.obj");
         const uint32_t file = other.file(pdb.names.add("b.cc"));
         other.proc({.name = "two", .offset = 0, .length = 8, .type = pdb.type}).end();
         other.lines(1, 0, 8, file, {{0, 9}});
       },
       "FILE 1 b.cc\nFUNC m 1000 8 0 two()\n1000 8 9 1\n"},
      {"public names",
       [](ModulePdb& pdb) {
         pdb.public_function("?one", 1, 0).public_function("?two", 1, 0);
         pdb.public_function("_f@8", 1, 0x20).public_function("_g@8", 1, 0x20);
         pdb.public_function("_h@8", 1, 0x10).public_function("_h@8", 1, 0x10);
       },
       "FUNC m 1000 8 0 one()\nPUBLIC 1010 0 _h@8\nPUBLIC m 1020 0 _f@8\n"},
  };
  for (const auto& test : cases) {
    ModulePdb pdb;
    pdb.function("one", 0, 8).end();
    test.add(pdb);
    EXPECT_EQ(standard(pdb), test.text) << test.what;
  }
}

TEST(StandardText, FunctionsDoNotOverlap) {
  ModulePdb pdb;
  pdb.function("late", 0x40, 0x10).end();
  pdb.function("outer", 0, 0x20).end();
  pdb.function("inner", 0x10, 8).end();
  pdb.function("empty", 0x14, 0).end();
  pdb.function("wraps", 0x50, 0xFFFFFFF0).end();
  pdb.module.proc({.name = "nowhere", .section = 9, .offset = 0, .length = 8, .type = pdb.type});
  pdb.module.thunk({.name = "thunk", .offset = 0x30, .length = 6});
  pdb.module.thunk({.name = "nested", .offset = 0x38, .length = 6}, 4);
  pdb.module.lines(1, 0, 0x20, pdb.source, {{0, 1}, {0x18, 2}});
  EXPECT_EQ(standard(pdb), text_of("FunctionsDoNotOverlap"));
}

TEST(StandardText, SeparatedCodeHasTheNameOfItsFunction) {
  ModulePdb pdb;
  pdb.caller("outer", 0, 0x20, Annotations().op(12, 4, 4).op(2, 1).op(12, 8, 4));
  pdb.module.separated_code(0x100, 0x10, 0);
  pdb.function("other", 0x20, 8).end();
  pdb.module.separated_code(0x20, 4, 0);  // the code stays that of "other"
  pdb.module.lines(1, 0, 0x20, pdb.source, {{0, 5}});
  pdb.module.lines(1, 0x100, 0x10, pdb.source, {{0, 6}});
  EXPECT_EQ(lines_without(standard(pdb), {"FILE ", "INLINE_"}),
            text_of("SeparatedCodeHasTheNameOfItsFunction"));
}

// The rewrite moved the second half of the function before the first one and removed code between.
TEST(StandardText, FollowsCodeThatARewriteMoved) {
  ModulePdb pdb;
  pdb.original_section({.name = ".text", .address = 0x1000, .virtual_size = 0x1000});
  pdb.omap_from(
      {{0x1000, 0x3000}, {0x1008, 0x3010}, {0x1010, 0}, {0x1014, 0x3008}, {0x1100, 0x2000}});
  pdb.caller("moved", 0, 0x1C, Annotations().op(12, 0x10, 4));
  pdb.function("removed", 0x10, 0).end();
  pdb.function("early", 0x100, 8).end();
  pdb.module.lines(1, 0, 0x1C, pdb.source, {{0, 1}, {0xC, 2}});
  EXPECT_EQ(lines_without(standard(pdb), {"FILE ", "INLINE_"}),
            text_of("FollowsCodeThatARewriteMoved"));
}

TEST(StandardText, DamageCostsNoMoreThanWhatIsDamaged) {
  const struct {
    const char* what;
    void (*damage)(ModulePdb&);
    uint64_t StandardCounts::*count;
  } cases[] = {
      {"more lines than the block has",
       [](ModulePdb& pdb) {
         const Bytes lines = Bytes().u32(8).u16(1).u16(0).u32(8).u32(pdb.source).u32(99).u32(812);
         pdb.module.subsection(kLines, Bytes(lines).u32(0).u32(9).str());
       },
       &StandardCounts::damagedBlocks},
      {"annotations that do not exist",
       [](ModulePdb& pdb) {
         pdb.module.inline_site(pdb.inlinee, Annotations().op(20, 1)).inline_site_end();
       },
       &StandardCounts::damagedBlocks},
      {"an inline site that is too short",
       [](ModulePdb& pdb) { pdb.module.symbol(kInlineSite, "").inline_site_end(); },
       &StandardCounts::unnamedInlinees},
      {"a module whose stream does not exist",
       [](ModulePdb& pdb) {
         pdb.lay_out();
         pdb.dbi.modules.push_back({.name = "b.obj", .object = "b.obj", .stream = 0x7000});
         pdb.msf.set_stream(3, pdb.dbi.bytes());
       },
       &StandardCounts::damagedModules},
  };
  for (const auto& test : cases) {
    ModulePdb pdb;
    pdb.function("sound", 0, 8).end();
    pdb.module.lines(1, 0, 8, pdb.source, {{0, 5}});
    pdb.module.inlinees({{pdb.inlinee, pdb.header, 70}});
    pdb.function("damaged", 8, 8);
    test.damage(pdb);
    StandardCounts counts;
    const Conversion result = convertAlone(pdb.build().bytes, Format::kStandard, &counts);
    EXPECT_EQ(lines_without(result.text, {"MODULE "}),
              "FILE 1 a.cc\nFUNC 1000 8 0 sound()\n1000 8 5 1\nFUNC 1008 8 0 damaged()\n")
        << test.what;
    EXPECT_EQ(counts.*test.count, 1u) << test.what;
  }
}

TEST(StandardText, ReadsAStreamThatModulesShareOnce) {
  ModulePdb pdb;
  pdb.function("one", 0, 8).end();
  pdb.lay_out();
  for (int i = 0; i < 3; ++i) pdb.dbi.modules.push_back(pdb.dbi.modules[0]);
  pdb.msf.set_stream(3, pdb.dbi.bytes());
  StandardCounts counts;
  EXPECT_EQ(standard(pdb, &counts), "FUNC 1000 8 0 one()\n");
  EXPECT_EQ(counts.modulesWithoutFunctions, 3u);
}

TEST(StandardText, NamesCannotBeginALine) {
  ModulePdb pdb;
  const uint32_t file = pdb.module.file(pdb.names.add("a\r.cc"));
  const uint32_t item = pdb.ids.function_id("in\nner", pdb.type);
  pdb.function("f\nFUNC 1 1 0 g", 0, 8).inline_site(item, Annotations().op(12, 4, 0));
  pdb.module.lines(1, 0, 8, file, {{0, 5}}).inlinees({{item, file, 7}});
  pdb.public_function("p\n", 1, 0x20).public_function("", 1, 0x30);
  EXPECT_EQ(standard(pdb), text_of("NamesCannotBeginALine"));
}

TEST(StandardText, NamesTheArchitecture) {
  ModulePdb pdb;
  pdb.dbi.machine = 0xAA64;
  const Conversion result = convertAlone(pdb.build().bytes, Format::kStandard);
  EXPECT_TRUE(result.text.starts_with("MODULE windows arm64 ")) << result.text;
}

}  // namespace
}  // namespace test_support
