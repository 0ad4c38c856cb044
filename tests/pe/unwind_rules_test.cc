// The unwind rules of an image by machine, and of images with code for two machines.

#include "symforge/src/pe/unwind_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builders/arm64_unwind_builder.h"
#include "builders/bytes.h"
#include "builders/pe_builder.h"
#include "symforge/src/pe/image_identity.h"
#include "tests/support/data.h"
#include "tests/support/memory_file.h"

namespace symforge_internal {
namespace {

using namespace builders;
using test_support::MemoryFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct Written {
  std::string text;
  std::vector<std::string> messages;
};

// An ARM64 function in the middle of x64 code, and leaf functions of both.
const std::vector<CodeRange> kFunctions = {
    {0x1000, 0x10}, {0x1010, 0x10}, {0x2000, 0x10}, {0x2010, 0x10}};

Written written(const std::string& image) {
  symforge_internal::MMapWrapper mapping;
  EXPECT_TRUE(mapping.Map(MemoryFile(image).path()));
  TextBuffer out;
  Written result;
  result.messages = writeUnwindRules(symforge_internal::PeImage(mapping), kFunctions, out);
  result.text = out.view();
  return result;
}

const std::string kX64Leaf = " 10 .cfa: $rsp 8 + .ra: .cfa 8 - ^\n";
const std::string kArm64Leaf = " 10 .cfa: sp 0 + .ra: x30\n";
const std::string kX64Text = "STACK CFI INIT 1000" + kX64Leaf + "STACK CFI 1004 .cfa: $rsp 40 +\n" +
                             "STACK CFI INIT 1010" + kX64Leaf;
const std::string kArm64Text = "STACK CFI INIT 2000" + kArm64Leaf +
                               "STACK CFI 2004 .cfa: sp 32 +\nSTACK CFI 200c .cfa: sp 0 +\n" +
                               "STACK CFI INIT 2010" + kArm64Leaf;
const std::string kX64LeavesOnArm64 =
    "STACK CFI INIT 1000" + kArm64Leaf + "STACK CFI INIT 1010" + kArm64Leaf;

// Tables of unwind data, in separate sections.
constexpr uint32_t kX64Table = 0x5000;
constexpr uint32_t kX64Bytes = 12;
constexpr uint32_t kArm64Table = 0x6000;
constexpr uint32_t kArm64Bytes = 8;
constexpr uint32_t kLoadConfig = 0x7000;
constexpr uint32_t kMetadata = 0x8000;
constexpr uint32_t kMap = 0x9000;
constexpr uint64_t kImageBase = 0x140000000;

struct Hybrid {
  uint16_t machine = 0x8664;
  uint32_t config_size = 0x140;
  uint64_t metadata = kImageBase + kMetadata;
  uint32_t map_count = 2;
  uint32_t arm64_kind = 1;
  uint32_t arm64_begin = 0x2000;
  uint32_t extra_table = kArm64Table;
  uint32_t extra_bytes = kArm64Bytes;
  bool has_map = true;
};

// The load configuration starts with its size and has the address of the metadata at offset 200.
// Metadata: version, RVA and count of the code map, ..., at 64 the RVA and size of the other table.
// Code map: start address with the kind in the low bits (ARM64, ARM64EC, x64), size.
std::string image(const Hybrid& fields) {
  PeBuilder pe;
  pe.machine(fields.machine);
  const UnwindInfo info{.prolog_size = 4, .slots = {unwind_slot(4, kAllocSmall, 3)}};
  const uint32_t unwind = pe.unwind_info(info);
  pe.section(".pdatax", kX64Table, Bytes().u32(0x1000).u32(0x1010).u32(unwind).str());
  const uint32_t packed = arm64_packed({.length = 0x10, .frame = 32});
  pe.section(".pdataa", kArm64Table, Bytes().u32(0x2000).u32(packed).str());
  Bytes config;
  config.u32(fields.config_size).fill(196).u64(fields.metadata).fill(112);
  pe.section(".config", kLoadConfig, config.str()).directory(10, kLoadConfig, 0x140);
  Bytes metadata;
  metadata.u32(1).u32(kMap).u32(fields.map_count).fill(52);
  metadata.u32(fields.extra_table).u32(fields.extra_bytes);
  pe.section(".chpe", kMetadata, metadata.str());
  Bytes map;
  map.u32(0x1002).u32(0x1000).u32(fields.arm64_begin | fields.arm64_kind).u32(0x1000);
  if (fields.has_map) pe.section(".map", kMap, map.str());
  if (fields.machine == 0x8664) {
    pe.directory(3, kX64Table, kX64Bytes);
  } else {
    pe.directory(3, kArm64Table, kArm64Bytes);
  }
  return pe.build();
}

TEST(UnwindRulesTest, FollowsTheMachine) {
  const Written x64 = written(image({.metadata = 0}));
  EXPECT_EQ(x64.text,
            kX64Text + "STACK CFI INIT 2000" + kX64Leaf + "STACK CFI INIT 2010" + kX64Leaf);
  EXPECT_THAT(x64.messages, IsEmpty());
  const Written arm64 = written(image({.machine = 0xAA64, .metadata = 0}));
  EXPECT_EQ(arm64.text, kX64LeavesOnArm64 + kArm64Text);
  EXPECT_THAT(arm64.messages, IsEmpty());
  // The load configuration of older images ends before the address of the metadata.
  EXPECT_EQ(written(image({.machine = 0xAA64, .config_size = 200})).text, arm64.text);

  EXPECT_THAT(written(PeBuilder(false).build()).messages, IsEmpty());
  for (const uint16_t machine : {0x1C0, 0x1C2, 0x1C4}) {
    const Written arm = written(PeBuilder(false).machine(machine).build());
    EXPECT_THAT(arm.messages, ElementsAre(HasSubstr("32-bit ARM")));
    EXPECT_EQ(arm.text, "");
  }
  for (const uint16_t machine : {0x200, 0xA641, 0x5064}) {
    EXPECT_THAT(written(PeBuilder().machine(machine).build()).messages,
                ElementsAre(HasSubstr("this machine")));
  }
  EXPECT_THAT(written(PeBuilder(false).machine(0xAA64).build()).messages,
              ElementsAre(HasSubstr("PE32+")));
  EXPECT_THAT(written("no image").messages, ElementsAre(HasSubstr("PE image")));
}

TEST(UnwindRulesTest, ReadsBothTablesOfHybridImages) {
  const Hybrid cases[] = {
      {},
      {.arm64_kind = 0},
      {.machine = 0xAA64, .extra_table = kX64Table, .extra_bytes = kX64Bytes},
  };
  for (const Hybrid& hybrid : cases) {
    const Written result = written(image(hybrid));
    EXPECT_EQ(result.text, kX64Text + kArm64Text);
    EXPECT_THAT(result.messages, IsEmpty());
  }
}

TEST(UnwindRulesTest, UsesNoTableThatIsNotOfTheCode) {
  const Hybrid cases[] = {
      {.extra_bytes = 0},
      {.extra_table = 0x00F00000},
      {.extra_table = kX64Table},
      {.extra_bytes = 0x1000},
  };
  for (const Hybrid& hybrid : cases) {
    const Written result = written(image(hybrid));
    EXPECT_EQ(result.text, kX64Text);
    EXPECT_THAT(result.messages, ElementsAre(HasSubstr("for ARM64 code")));
  }
  // The table of the header's machine, repeated.
  const Written same = written(image({.machine = 0xAA64}));
  EXPECT_EQ(same.text, kArm64Text);
  EXPECT_THAT(same.messages, ElementsAre(HasSubstr("for x64 code")));
}

TEST(UnwindRulesTest, MakesNoRulesWithoutAMapOfTheCode) {
  const Hybrid cases[] = {
      {.metadata = kImageBase + 0x00F00000},
      {.metadata = 0x1000},
      {.metadata = UINT64_MAX},
      {.map_count = 0},
      {.map_count = 3},
      {.map_count = UINT32_MAX},
      {.arm64_kind = 3},
      {.arm64_begin = 0x1FFC},
      {.has_map = false},
  };
  for (const Hybrid& hybrid : cases) {
    const Written result = written(image(hybrid));
    EXPECT_EQ(result.text, "") << &hybrid - cases;
    EXPECT_THAT(result.messages, ElementsAre(HasSubstr("does not tell"))) << &hybrid - cases;
  }
}

// Functions at 0x1000, the second one continues the first one, which ends in: add rsp, 0x20; pop
// rbx; ret.
std::string x64_image() {
  PeBuilder pe;
  const std::string code = std::string(0x3A, '\x90') + from_hex("4883c4205bc3");
  const UnwindInfo info{.prolog_size = 8,
                        .slots = {unwind_slot(6, kEpilog, 1), unwind_slot(8, kSaveNonvol, 6), 5,
                                  unwind_slot(4, kAllocSmall, 3), unwind_slot(1, kPushNonvol, 3)},
                        .version = 2};
  const uint32_t first = pe.unwind_info(info);
  pe.section(".text", 0x1000, code).function_entry({0x1000, 0x1040, first});
  pe.function(0x1040, 0x1060, {.flags = kUnwindChained, .chained = {0x1000, 0x1040, first}});
  return pe.codeview({}, 1, "a.pdb").build();
}

std::string arm64_image() {
  PeBuilder pe;
  pe.machine(0xAA64);
  const Arm64Xdata record{
      .length = 0x40, .extended = true, .epilogs = {{0x20, 0}, {0x34, 0}}, .codes = "\xE1\x81\xE4"};
  const uint32_t data = pe.raw_unwind_info(record.bytes());
  pe.arm64_entry(0x1000, data).arm64_entry(0x2000, arm64_packed({.length = 0x40, .frame = 32}));
  return pe.codeview({}, 1, "a.pdb").build();
}

// Bytes of rules, messages, code identifier, end of the debug identifier, bytes of its name.
std::string outcome(const std::string& image) {
  const Written rules = written(image);
  std::string text =
      std::to_string(rules.text.size()) + "/" + std::to_string(rules.messages.size());
  const auto summary = read_image_summary(MemoryFile(image).path());
  if (!summary) return text + " none";
  text += ' ' + summary->code_id();
  if (!summary->pdb) return text;
  const std::string name_bytes = std::to_string(summary->pdb->debug_file.size());
  return text + ' ' + summary->pdb->debug_id.substr(24) + ' ' + name_bytes;
}

// Each word of an image that is not 0 in turn, as 0, one less, one more and the largest number, and
// each length; "=": as without damage.
TEST(UnwindRulesTest, DamagedImagesHaveTheReviewedOutcomes) {
  std::string table;
  for (const std::string& good : {x64_image(), arm64_image(), image({})}) {
    const std::string usual = outcome(good);
    table += "image: " + usual + '\n';
    const auto add = [&](const std::string& bytes) {
      const std::string made = outcome(bytes);
      return ", " + (made == usual ? "=" : made);
    };
    std::string last;
    for (size_t at = 0; at + 2 <= good.size(); at += 2) {
      const uint16_t word = get_u16(good, at);
      std::string row;
      for (const int value : {0, word - 1, word + 1, 0xFFFF}) {
        std::string bytes = good;
        put_u16(bytes, at, static_cast<uint16_t>(value));
        if (word != 0) row += add(bytes);
      }
      row += add(good.substr(0, at + 1));
      if (row != last) table += std::to_string(at) + row + '\n';
      last = row;
    }
  }
  EXPECT_EQ(test_support::difference(table, "damaged_images.txt"), "");
}

TEST(UnwindRulesTest, CountsEntriesWithoutRules) {
  PeBuilder pe;
  pe.machine(0xAA64);
  pe.arm64_entry(0x1000, arm64_packed({.flag = 3}))
      .arm64_entry(0x1010, arm64_packed({.length = 0}));
  pe.arm64_entry(0x2000, arm64_packed({.length = 0x10}))
      .arm64_entry(0x2004, arm64_packed({.length = 4}));
  pe.arm64_entry(0x2008, arm64_packed({.length = 4}));
  EXPECT_THAT(
      written(pe.build()).messages,
      ElementsAre("no unwind rules for 1 entry with a stack layout that rules do not describe",
                  "no unwind rules for 1 entry with damaged unwind data",
                  "no unwind rules for 2 entries inside of others"));
}

}  // namespace
}  // namespace symforge_internal
