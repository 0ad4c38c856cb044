// Names of functions, inlined functions and types in the standard format.

#include "symforge/src/standard/function_names.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "builders/codeview_builder.h"
#include "builders/msf_builder.h"
#include "symforge/src/msf/msf_file.h"
#include "tests/support/data.h"
#include "tests/support/memory_file.h"

namespace symforge_internal {
namespace {

using builders::Bytes;
using builders::TypeStreamBuilder;

constexpr uint32_t kVoid = 0x03;
constexpr uint32_t kInt = 0x74;

// Type and id records, loaded for the standard format.
class Names {
 public:
  Names(const TypeStreamBuilder& types, const TypeStreamBuilder& ids) {
    builders::MsfBuilder msf(4096);
    msf.add_stream("");
    msf.add_stream("");
    msf.add_stream(types.stream());
    msf.add_stream("");
    msf.add_stream(ids.stream());
    EXPECT_TRUE(file_.Map(test_support::MemoryFile(msf.build().bytes).path()));
    EXPECT_TRUE(file_.readDirectory());
    loadTypeStream(file_, kTypeInfoStream, types_, true);
    loadTypeStream(file_, kIPIStream, ids_, false);
  }

  std::string function(std::string_view name, uint32_t type) {
    std::string text;
    names_.appendFunction(name, type, text);
    return text;
  }
  // Returns "-" for an item without a name.
  std::string inlinee(uint32_t item) {
    std::string text;
    return names_.appendInlinee(item, text) ? text : "-" + text;
  }

 private:
  MsfFile file_;
  TypeTable types_{TypeDialect::kStandard};
  TypeTable ids_{TypeDialect::kStandard};
  FunctionNames names_{types_, ids_};
};

TEST(FunctionNames, InlineesAreQualifiedAndHaveParameters) {
  TypeStreamBuilder types;
  TypeStreamBuilder ids;
  const uint32_t function = types.procedure(kVoid, types.arguments({kInt, 0x70}), 2);
  const uint32_t box = types.structure("a::Box<b::C>");
  const uint32_t method = types.member_function(kVoid, box, 0, types.arguments({}), 0);
  const uint32_t lambda = types.structure("f::`2'::<lambda_1>");
  const uint32_t list = ids.string_list({ids.string_id("outer"), ids.string_id("::")});
  const uint32_t space = ids.string_id("inner", list);
  const std::pair<uint32_t, const char*> cases[] = {
      {ids.function_id("plain", function), "plain(int,char)"},
      {ids.function_id("scoped", function, ids.string_id("a::b")), "a::b::scoped(int,char)"},
      {ids.function_id("listed", function, space), "outer::inner::listed(int,char)"},
      {ids.function_id("lost", function, 0x1FFF), "lost(int,char)"},
      {ids.member_function_id("get", method, box), "a::Box<b::C>::get()"},
      {ids.member_function_id("{ctor}", method, box), "a::Box<b::C>::Box<b::C>()"},
      {ids.member_function_id("{dtor}", method, box), "a::Box<b::C>::~Box<b::C>()"},
      {ids.member_function_id("operator()", method, lambda), "f::`2'::<lambda_1>::operator()()"},
      {ids.function_id("", function), "-"},
      {space, "-"},
      {0, "-"},
      {0x1FFF, "-"},
  };
  Names names(types, ids);
  for (const auto& [item, text] : cases) EXPECT_EQ(names.inlinee(item), text);
}

TEST(FunctionNames, TypesHaveTheirNames) {
  TypeStreamBuilder types;
  const uint32_t box = types.structure("Box");
  const uint32_t arguments = types.arguments({kInt});
  const uint32_t method = types.member_function(0x30, box, 0, arguments, 1);
  const Bytes large = Bytes().u16(0).u16(0).u32(0).u32(0).u32(0).u16(0x8004).u32(0x12345);
  const std::pair<uint32_t, const char*> cases[] = {
      {0x47B, "char32_t *"},
      {0x103, "std::nullptr_t"},
      {0x02, "<unnamed type>"},
      {types.pointer(method, 0x1006C), "bool (Box::*)(int)"},
      {types.pointer(method), "(int)"},
      {types.add(0x1505, Bytes(large).zstr("Large").str()), "Large"},
  };
  const auto expect_name = [&types](uint32_t type, const std::string& text) {
    TypeStreamBuilder all = types;
    const uint32_t function = all.procedure(kVoid, all.arguments({type, kInt}), 1);
    Names names(all, TypeStreamBuilder());
    EXPECT_EQ(names.function("f", function), "f(" + text + ",int)") << type;
  };
  for (const auto& [type, text] : cases) expect_name(type, text);
  for (const auto& c : test_support::test_cases("primitive_types.txt")) {
    const size_t standard = c.expected.find(" | ");
    expect_name(static_cast<uint32_t>(std::stoul(c.input, nullptr, 16)),
                c.expected.substr(standard == c.expected.npos ? 0 : standard + 3));
  }
}

TEST(FunctionNames, FunctionsLoseWhatOnlyTheCompilerSays) {
  TypeStreamBuilder types;
  const uint32_t function = types.procedure(kVoid, types.arguments({}), 0);
  Names names(types, TypeStreamBuilder());
  EXPECT_EQ(names.function("f<int (__cdecl*)(char * __ptr64)>", function), "f<int (*)(char *)>()");
  EXPECT_EQ(names.function("f<int (__cdecl*)(void)>", 0), "f<int (__cdecl*)(void)>");
}

// Lists that contain themselves several times.
TEST(FunctionNames, BoundsStringsThatContainThemselves) {
  TypeStreamBuilder types;
  TypeStreamBuilder ids;
  const uint32_t function = types.procedure(kVoid, types.arguments({}), 0);
  const uint32_t list = ids.next_index();
  ids.string_list(std::vector<uint32_t>(1000, list));
  const uint32_t item = ids.function_id("f", function, ids.string_id("a", list));
  Names names(types, ids);
  EXPECT_TRUE(names.inlinee(item).ends_with("f()"));
}

}  // namespace
}  // namespace symforge_internal
