// Type and id records: finding them in a stream, and their text.

#include "symforge/src/pdb/type_names.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/mapped_file.h"
#include "builders/codeview_builder.h"
#include "builders/msf_builder.h"
#include "tests/support/data.h"
#include "tests/support/memory_file.h"

namespace symforge_internal {
namespace {

using builders::Bytes;
using builders::MsfBuilder;
using builders::PageOrder;
using builders::TypePadding;
using builders::TypeStreamBuilder;

constexpr uint32_t kInt = 0x74;
constexpr uint32_t kChar = 0x70;
constexpr uint32_t kFirst = 0x1000;

// A mapped file with the type records as stream 0 and ids as stream 1.
class Types {
 public:
  explicit Types(const TypeStreamBuilder& types, const TypeStreamBuilder& ids = TypeStreamBuilder(),
                 uint32_t page_size = 4096, PageOrder order = PageOrder::kContiguous)
      : Types(types.stream(), ids.stream(), page_size, order) {}

  Types(const std::string& types, const std::string& ids, uint32_t page_size,
        PageOrder order = PageOrder::kContiguous) {
    MsfBuilder msf(page_size);
    msf.add_stream(types);
    msf.add_stream(ids);
    msf.order(order);
    const builders::MsfFile file = msf.build();
    EXPECT_TRUE(mapping_.Map(test_support::MemoryFile(file.bytes).path()));
    msf_ = {mapping_.base(), mapping_.length(), page_size};
    for (uint32_t stream : {0, 1}) {
      streams_.emplace_back(static_cast<uint32_t>((stream == 0 ? types : ids).size()));
      streams_.back().pageIndices = file.stream_pages[stream];
    }
    types_.load(streams_[0], msf_);
    ids_.load(streams_[1], msf_);
  }

  std::string text(uint32_t type, uint32_t flags = TypeNames::IsTopLevel, bool info = false) {
    std::string output;
    is_function_ = names_.stringizeType(type, output, flags, info);
    return output;
  }
  bool is_function() const { return is_function_; }
  const TypeTable& table() const { return types_; }

 private:
  MMapWrapper mapping_;
  MsfPages msf_;
  std::vector<StreamPair> streams_;
  TypeTable types_;
  TypeTable ids_;
  TypeNames names_{types_, ids_};
  bool is_function_ = false;
};

TEST(TypeNamesTest, RendersPrimitivesByTheirLowByte) {
  Types types{TypeStreamBuilder()};
  std::vector<std::string> names(256, "!Unknown!");
  for (const auto& c : test_support::test_cases("primitive_types.txt")) {
    names.at(std::stoul(c.input, nullptr, 16)) = c.expected.substr(0, c.expected.find(" | "));
  }
  for (uint32_t number = 1; number < 256; ++number) {
    for (const uint32_t higher : {0u, 0x100u, 0x1000u}) {
      EXPECT_EQ(types.text(higher + number), names[number]) << number;
    }
    const bool known = names[number] != "!Unknown!";
    for (const uint32_t pointer : {0x200u, 0x400u, 0x600u, 0x1200u}) {
      EXPECT_EQ(types.text(pointer + number), names[number] + (known ? " *" : "")) << number;
    }
    EXPECT_FALSE(types.is_function());
  }
  EXPECT_EQ(types.text(0), "...");
}

std::string bytes16(uint16_t value) { return Bytes().u16(value).str(); }
std::string bytes32(uint32_t value) { return Bytes().u32(value).str(); }
std::string bytes64(uint64_t value) { return Bytes().u64(value).str(); }

TEST(TypeNamesTest, RendersEachKindOfRecord) {
  using Build = std::function<uint32_t(TypeStreamBuilder&)>;
  const std::pair<std::string, Build> cases[] = {
      {"S", [](auto& b) { return b.structure("S"); }},
      {"C", [](auto& b) { return b.structure("C", 8, LEAF::LF_CLASS); }},
      {"U", [](auto& b) { return b.union_type("U"); }},
      {"E", [](auto& b) { return b.enumeration("E"); }},
      {"A", [](auto& b) { return b.add(LEAF::LF_ALIAS, Bytes().u32(kInt).zstr("A").str()); }},
      {"int const", [](auto& b) { return b.modifier(kInt, 1); }},
      {"int volatile", [](auto& b) { return b.modifier(kInt, 2); }},
      {"int", [](auto& b) { return b.modifier(kInt, 3); }},
      {"int unaligned", [](auto& b) { return b.modifier(kInt, 4); }},
      {"char const *", [](auto& b) { return b.pointer(b.modifier(kChar, 1)); }},
      {"int &", [](auto& b) { return b.pointer(kInt, 1 << 5); }},
      {"int::*", [](auto& b) { return b.pointer(kInt, 2 << 5); }},
      {"int::", [](auto& b) { return b.pointer(kInt, 3 << 5); }},
      {"int &&", [](auto& b) { return b.pointer(kInt, 4 << 5); }},
      {"int * const", [](auto& b) { return b.pointer(kInt, 0x400); }},
      {"int * const volatile", [](auto& b) { return b.pointer(kInt, 0x600); }},
      {"int[40]", [](auto& b) { return b.array(kInt, 0x23, 40); }},
      {"int[S]",
       [](auto& b) {
         while (b.next_index() < 0x8000) b.add(LEAF::LF_ALIAS, Bytes().u32(0).zstr("S").str());
         return b.array(kInt, b.structure("S"), 40);
       }},
      {"()", [](auto& b) { return b.procedure(kInt, b.arguments({}), 0); }},
      {"(int,...)",
       [](auto& b) {
         return b.procedure(kInt, b.arguments({kInt, 0}), 2);
       }},
      {"(S *)",
       [](auto& b) {
         const uint32_t s = b.structure("S");
         return b.member_function(kInt, s, 0, b.arguments({b.pointer(s)}), 1);
       }},
      // A pointer to a function is printed as its argument list, with its own qualifiers.
      {"(int) const",
       [](auto& b) { return b.pointer(b.procedure(kInt, b.arguments({kInt}), 1), 0x400); }},
      {"U",
       [](auto& b) { return b.add(LEAF::LF_INDEX, Bytes().u16(0).u32(b.union_type("U")).str()); }},
      {"f(int)",
       [](auto& b) { return b.function_id("f", b.procedure(kInt, b.arguments({kInt}), 1)); }},
      {"x", [](auto& b) { return b.add(LEAF::LF_CHAR, "x"); }},
      {"-2", [](auto& b) { return b.add(LEAF::LF_SHORT, bytes16(0xFFFE)); }},
      {"65534", [](auto& b) { return b.add(LEAF::LF_USHORT, bytes16(0xFFFE)); }},
      {"-2", [](auto& b) { return b.add(LEAF::LF_LONG, bytes32(0xFFFFFFFE)); }},
      {"4294967294", [](auto& b) { return b.add(LEAF::LF_ULONG, bytes32(0xFFFFFFFE)); }},
      {"-2", [](auto& b) { return b.add(LEAF::LF_QUADWORD, bytes64(uint64_t(-2))); }},
      {"18446744073709551614", [](auto& b) { return b.add(LEAF::LF_UQUADWORD, bytes64(-2)); }},
      {"1.500000", [](auto& b) { return b.add(LEAF::LF_REAL32, bytes32(0x3FC00000)); }},
      {"-0.250000", [](auto& b) { return b.add(LEAF::LF_REAL64, bytes64(0xBFD0000000000000)); }},
      {"f80", [](auto& b) { return b.add(LEAF::LF_REAL80, "0123456789"); }},
      {"f128", [](auto& b) { return b.add(LEAF::LF_REAL128, "0123456789abcdef"); }},
      {"", [](auto& b) { return b.add(0x801B, "date"); }},
      // A class of 0x8000 bytes or more: its name starts inside the size field.
      {"\x01\x80",
       [](auto& b) {
         return b.add(LEAF::LF_STRUCTURE,
                      Bytes().fill(16).u16(LEAF::LF_ULONG).u32(0x8001).zstr("Big").str());
       }},
      // A kind without a text is printed as the primitive type of its index's low byte, here
      // 0x1000.
      {"!Unknown!", [](auto& b) { return b.add(0x1203, "field list"); }},
      // Known in the standard format alone.
      {"!Unknown!", [](auto& b) { return b.string_id("s"); }},
      {"!Unknown!", [](auto& b) { return b.string_list({kInt}); }},
      {"!Unknown!", [](auto& b) { return b.member_function_id("f", kInt, kInt); }},
  };
  for (const auto& [text, build] : cases) {
    TypeStreamBuilder builder;
    const uint32_t type = build(builder);
    Types types(builder);
    EXPECT_EQ(types.text(type), text);
    EXPECT_EQ(types.is_function(), types.table().isFunction(type)) << text;
  }
}

TEST(TypeNamesTest, IndexZeroIsNoTypeEvenWithARecord) {
  TypeStreamBuilder b;
  b.procedure(kInt, 0, 0);
  const std::string from_zero = b.stream().replace(8, 8, bytes32(0) + bytes32(1));
  Types types(from_zero, TypeStreamBuilder().stream(), 4096);
  EXPECT_EQ(types.text(0), "...");
  EXPECT_FALSE(types.table().isFunction(0));
}

TEST(TypeNamesTest, WarnsOfAnUnknownPointerEachTime) {
  TypeStreamBuilder b;
  const uint32_t unknown = b.pointer(kInt, 5 << 5 | 0x400);
  const uint32_t procedure = b.procedure(kInt, b.arguments({unknown}), 1);
  const uint32_t of_function = b.pointer(procedure, 5 << 5);
  Types types(b);
  EXPECT_TRUE(types.table().hasUnknownPointers());
  for (int i = 0; i < 2; ++i) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(types.text(procedure), "(int const)");
    EXPECT_EQ(types.text(of_function), "(int const)");  // not followed by its own marker
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Unknown ptr type encountered\nUnknown ptr type encountered\n");
  }
}

TEST(TypeNamesTest, BoundsNestingAndSize) {
  TypeStreamBuilder deep;
  uint32_t type = kInt;
  for (int i = 0; i < 1000; ++i) type = deep.arguments({deep.pointer(type)});
  EXPECT_EQ(Types(deep).text(type).size(), 3 + 1000 * 4);

  TypeStreamBuilder circle;
  circle.pointer(kFirst);
  const uint32_t list = circle.arguments({kFirst + 2});
  circle.procedure(kInt, list, 1);
  const uint32_t self = circle.arguments({kFirst + 3, kFirst + 3});
  TypeStreamBuilder bomb;  // each list contains the previous one twice
  uint32_t doubled = kInt;
  for (int i = 0; i < 60; ++i) doubled = bomb.arguments({doubled, doubled});
  EXPECT_THROW(Types(circle).text(kFirst), pdb_exception);
  EXPECT_THROW(Types(circle).text(kFirst + 2), pdb_exception);
  EXPECT_THROW(Types(circle).text(self), pdb_exception);
  EXPECT_THROW(Types(bomb).text(doubled), pdb_exception);
}

// ---- Iterating over the records

TEST(TypeTableTest, SkipsFillAndNothingElse) {
  for (const TypePadding padding :
       {TypePadding::kCounted, TypePadding::kZeros, TypePadding::kNone}) {
    TypeStreamBuilder b;
    // Ends 1, 2 and 3 bytes before a multiple of 4, then on one.
    for (const char* name : {"a", "ab", "abc", "abcd", "abcde"})
      b.add(LEAF::LF_ENUM, Bytes().fill(12, 1).zstr(name).str(), padding);
    Types types(b);
    ASSERT_EQ(types.table().size(), 5u);
    EXPECT_EQ(types.text(kFirst) + types.text(kFirst + 1) + types.text(kFirst + 4), "aababcde");
  }
  // Pad bytes after a record whose length does not include them.
  const std::string enumeration = Bytes().u16(16).u16(LEAF::LF_ENUM).fill(12, 1).zstr("x").str();
  TypeStreamBuilder b;
  b.raw(enumeration + "\xF2\xF1" + enumeration).override_max(kFirst + 2);
  EXPECT_EQ(Types(b).text(kFirst + 1), "x");
}

TEST(TypeTableTest, RunsOffThePages) {
  const auto load = [](const std::function<void(TypeStreamBuilder&)>& add, size_t cut = 0) {
    TypeStreamBuilder b;
    b.structure("to make a page of at least 64 bytes");
    add(b);
    std::string stream = b.stream();
    stream.resize(stream.size() - cut);
    // The pages end with the stream.
    Types(stream, TypeStreamBuilder().stream(), static_cast<uint32_t>((stream.size() + 3) / 4 * 4));
  };
  using Refusal = pdb_recoverable_exception;
  EXPECT_NO_THROW(load([](auto& b) { b.structure("abc"); }));
  EXPECT_THROW(load([](auto& b) { b.structure("abc"); }, 4), Refusal) << "a name without its end";
  EXPECT_THROW(load([](auto& b) { b.override_max(b.next_index() + 1); }), Refusal);
  EXPECT_THROW(load([](auto& b) { b.pointer(kInt); }, 4), Refusal);
  EXPECT_THROW(load([](auto& b) { b.add(LEAF::LF_ARGLIST, bytes32(100)); }), Refusal);
  EXPECT_THROW(
      load([](auto& b) { b.raw(Bytes().u16(1).u16(0x8001).str()).override_max(kFirst + 2); }),
      Refusal)
      << "a negative size";
}

// The text is the same wherever a page boundary splits the record.
TEST(TypeTableTest, ReadsAcrossPageBoundaries) {
  TypeStreamBuilder b;
  std::vector<uint32_t> wanted;
  for (int i = 0; i < 40; ++i) {
    const uint32_t s = b.structure("name" + std::string(i, 'x'));
    wanted.push_back(b.array(s, 0x23, static_cast<uint16_t>(0x1200 + i)));
    const std::vector<uint32_t> all(i % 7, b.pointer(s));
    wanted.push_back(b.procedure(kInt, b.arguments(all), 1));
    wanted.push_back(b.function_id("id" + std::string(i % 5, 'y'), wanted.back()));
    wanted.push_back(b.add(LEAF::LF_QUADWORD, bytes64(uint64_t{0x0102030405060708} + i)));
  }
  b.structure(std::string(8, 'z'));
  Types whole(b);
  for (const uint32_t page_size : {64, 68, 72, 100, 128}) {
    for (const PageOrder order : {PageOrder::kContiguous, PageOrder::kReversed}) {
      Types cut(b, TypeStreamBuilder(), page_size, order);
      for (const uint32_t type : wanted) ASSERT_EQ(cut.text(type), whole.text(type)) << page_size;
    }
  }
}

}  // namespace
}  // namespace symforge_internal
