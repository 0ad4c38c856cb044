// Unwind data of ARM64 images as STACK CFI lines.

#include "symforge/src/pe/arm64_unwind.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builders/arm64_unwind_builder.h"
#include "builders/pe_builder.h"
#include "tests/support/data.h"
#include "tests/support/memory_file.h"
#include "tests/support/unwind_cases.h"

namespace symforge_internal {
namespace {

using namespace builders;
using namespace test_support;

struct Arm64Rules {
  std::string text;
  Arm64UnwindReport report;
};

// The rules of a whole image, with its table in the exception directory.
Arm64Rules arm64Rules(const std::string& image, const std::vector<CodeRange>& functions = {}) {
  symforge_internal::MMapWrapper mapping;
  EXPECT_TRUE(mapping.Map(MemoryFile(image).path()));
  const symforge_internal::PeImage pe(mapping);
  if (pe.ntHeaders() == nullptr) return {};
  const auto& directory = pe.ntHeaders()->OptionalHeader.DataDirectory[3];
  TextBuffer out;
  Arm64Rules result;
  result.report =
      writeArm64UnwindRules(pe, directory.VirtualAddress, directory.Size, functions, out);
  result.text = out.view();
  return result;
}

PeBuilder arm64() {
  PeBuilder pe;
  pe.machine(0xAA64);
  return pe;
}

// Of one function at 0x1000.
Arm64Rules arm64RulesOfEntry(std::string_view words) {
  PeBuilder pe = arm64();
  const uint32_t data = arm64_unwind(pe, words);
  return arm64Rules(pe.arm64_entry(0x1000, data).build());
}

std::string words_of(const TestCase& c) {
  return c.section == "codes" ? "length=0x20 codes=" + c.input + "e4" : c.input;
}
std::string rows_of(const TestCase& c) {
  if (c.section != "codes") return c.expected;
  const std::string entry = "INIT 1000 20 .cfa: sp 0 + .ra: x30";
  return c.expected == "none" ? entry : entry + "; 1004 " + c.expected;
}

TEST(Arm64UnwindTest, WritesTheRowsOfTheTable) {
  for (const char* section : {"codes", "packed", "records"}) {
    for (const TestCase& c : test_cases("arm64_unwind.txt", section)) {
      EXPECT_EQ(cfi_rows(arm64RulesOfEntry(words_of(c)).text), rows_of(c)) << c.input;
    }
  }
}

const std::string kFrame = "\xE1\x81\xE4";  // mov x29,sp; stp x29,lr,[sp,#-16]!

// More scopes than the field in the header can count.
TEST(Arm64UnwindTest, ReadsAHundredEpilogs) {
  std::string words = "length=0x1000 extended=1 codes=e181e4 epilogs=";
  for (int i = 1; i <= 100; ++i) words += std::to_string(i * 0x20) + ":0,";
  const std::string text = arm64RulesOfEntry(words).text;
  const std::string body = ".cfa: x29 16 + .ra: .cfa 8 - ^ x29: .cfa 16 - ^";
  size_t bodies = 0;
  for (size_t at = text.find(body); at != text.npos; at = text.find(body, at + 1)) ++bodies;
  EXPECT_EQ(bodies, 100u);
}

const std::string kGood = "STACK CFI INIT 3000 10 .cfa: sp 0 + .ra: x30\n";

// One bad entry at 0x2000 in a function of 0x80 bytes, and a good one at 0x3000.
Arm64Rules withGood(PeBuilder& pe, uint32_t unwind_data) {
  pe.arm64_entry(0x2000, unwind_data);
  pe.arm64_entry(0x3000, arm64_packed({.length = 0x10}));
  return arm64Rules(pe.build(), {{0x2000, 0x80}, {0x3000, 0x10}});
}
Arm64Rules withGood(std::string_view words) {
  PeBuilder pe = arm64();
  const uint32_t data = arm64_unwind(pe, words);
  return withGood(pe, data);
}

TEST(Arm64UnwindTest, LeavesOutDamagedEntries) {
  for (const TestCase& c : test_cases("arm64_unwind.txt", "damaged")) {
    const Arm64Rules result = withGood(c.input);
    EXPECT_EQ(result.report.entries, 2u);
    EXPECT_EQ(result.report.damaged, 1u) << c.input;
    // Of a rejected entry with a known length, the rest of the function is a leaf.
    const uint32_t length = number_of(c.input, "length");
    const size_t good = result.text.find(kGood);
    EXPECT_EQ(good != 0, length != 0 && length < 0x80) << c.input << result.text;
    EXPECT_EQ(result.text.substr(good), kGood);
  }
}

TEST(Arm64UnwindTest, LeavesOutWhatRulesCannotDescribe) {
  std::vector<std::string> codes = {"df01", "e78000", "e700c0"};
  for (int code = 0xE8; code <= 0xFF; ++code) {
    const char byte = static_cast<char>(code);
    if (code != 0xFC) codes.push_back(hex_dump({&byte, 1}) + "01010101");
  }
  // The reserved flag leaves the entry's length unknown: its function has no rules.
  std::vector<std::string> entries = {"flag=3 length=0x10", "length=0x80 version=1 codes=e181e4",
                                      "length=0x80 epilogs=0x20:0:1 codes=e181e4"};
  for (const std::string& code : codes) {
    // In the prolog, and in an epilog only.
    entries.push_back("length=0x80 codes=" + code + "e4");
    entries.push_back("length=0x80 epilogs=0x40:1 codes=e4" + code + "e4");
  }
  for (const std::string& entry : entries) {
    const Arm64Rules result = withGood(entry);
    EXPECT_EQ(result.report.unsupported, 1u) << entry;
    EXPECT_EQ(result.text, kGood) << entry;
  }
}

TEST(Arm64UnwindTest, LeavesOutWhatLeavesTheImage) {
  PeBuilder pe = arm64();
  EXPECT_EQ(withGood(pe, 0x00800000).report.damaged, 1u);  // in no section
  pe = arm64();
  EXPECT_EQ(withGood(pe, 0xFFFFFFFC).report.damaged, 1u);
  // A function beyond the end of the image.
  pe = arm64();
  pe.size_of_image(0x2020);
  EXPECT_EQ(withGood(pe, arm64_packed({.length = 0x40})).report.damaged, 2u);
}

// Every part of a record is required, and nothing beyond the end of the file is read.
TEST(Arm64UnwindTest, RejectsTruncatedRecords) {
  const Arm64Xdata record{
      .length = 0x40, .extended = true, .epilogs = {{0x20, 0}, {0x34, 0}}, .codes = kFrame};
  const std::string bytes = record.bytes();
  ASSERT_EQ(bytes.size(), 20u);
  for (size_t size = 0; size <= bytes.size(); ++size) {
    // The last section of the file contains the first bytes of the record.
    PeBuilder pe = arm64();
    const std::string table = Bytes().u32(0x1000).u32(0x8000).str();
    pe.section(".pdata", 0x4000, table).directory(3, 0x4000, 8);
    pe.section(".xdata", 0x8000, bytes.substr(0, size));
    const Arm64Rules result = arm64Rules(pe.build());
    EXPECT_EQ(result.report.damaged, size < bytes.size() ? 1u : 0u) << size;
    EXPECT_EQ(result.text.empty(), size < bytes.size());
  }
}

TEST(Arm64UnwindTest, ReadsTheEntriesOfATruncatedTable) {
  PeBuilder pe = arm64();
  pe.section(".text", 0x1000, std::string(0x40, 0));
  pe.section(".pdata", 0x4000,
             Bytes().u32(0x1010).u32(arm64_packed({.length = 0x10})).u32(0).str());
  const Arm64Rules result = arm64Rules(pe.directory(3, 0x4000, 64).build(), {{0x1000, 0x40}});
  EXPECT_TRUE(result.report.truncated);
  // Code above the last entry may belong to a missing one.
  EXPECT_EQ(result.text,
            "STACK CFI INIT 1000 10 .cfa: sp 0 + .ra: x30\n"
            "STACK CFI INIT 1010 10 .cfa: sp 0 + .ra: x30\n");
  const Arm64Rules none =
      arm64Rules(arm64().directory(3, 0x00700000, 64).build(), {{0x1000, 0x40}});
  EXPECT_TRUE(none.report.truncated);
  EXPECT_EQ(none.text, "");
}

TEST(Arm64UnwindTest, TakesTheFirstOfOverlappingEntries) {
  const uint32_t word = arm64_packed({.length = 0x40, .frame = 32});
  PeBuilder pe = arm64();
  pe.arm64_entry(0x3000, word).arm64_entry(0x1000, word).arm64_entry(0x1000, word + 4);
  pe.arm64_entry(0x103C, word).arm64_entry(0x1040, word).arm64_entry(0, 0);
  const Arm64Rules result = arm64Rules(pe.build());
  EXPECT_EQ(result.report.entries, 5u);
  EXPECT_EQ(result.report.overlapping, 2u);
  std::string expected;
  for (const std::string begin : {"100", "104", "300"}) {
    const char next = begin[2] == '4' ? '7' : '3';
    expected += "STACK CFI INIT " + begin + "0 40 .cfa: sp 0 + .ra: x30\nSTACK CFI " + begin +
                "4 .cfa: sp 32 +\nSTACK CFI " + begin.substr(0, 2) + next + "c .cfa: sp 0 +\n";
  }
  EXPECT_EQ(result.text, expected);
}

TEST(Arm64UnwindTest, GivesUncoveredCodeTheRulesOfALeaf) {
  PeBuilder pe = arm64();
  pe.arm64_entry(0x1010, arm64_packed({.flag = 2, .length = 0x10, .frame = 32}));
  const Arm64Rules result = arm64Rules(pe.build(), {{0x1000, 0x30}, {0x1100, 8}});
  const std::string leaf = " .cfa: sp 0 + .ra: x30\n";
  EXPECT_EQ(result.text, "STACK CFI INIT 1000 10" + leaf +
                             "STACK CFI INIT 1010 10 .cfa: sp 32 + .ra: x30\n"
                             "STACK CFI INIT 1020 10" +
                             leaf + "STACK CFI INIT 1100 8" + leaf);
  // An image without a table has leaf functions only.
  EXPECT_EQ(arm64Rules(arm64().build(), {{0x1100, 8}}).text, "STACK CFI INIT 1100 8" + leaf);
}

// Records shared by many entries: time and output are bounded by the size of the file.
TEST(Arm64UnwindTest, BoundsSharedRecords) {
  PeBuilder pe = arm64();
  const std::string codes = "\xE5" + std::string(1018, '\xE3') + "\xE4";
  const uint32_t rva =
      pe.raw_unwind_info(Arm64Xdata{.length = 4, .extended = true, .codes = codes}.bytes());
  for (uint32_t i = 0; i < 20000; ++i) pe.arm64_entry(0x1000 + 4 * i, rva);
  const Arm64Rules many_codes = arm64Rules(pe.build(), {{0x1000, 80000}});
  EXPECT_TRUE(many_codes.report.limit_reached);
  EXPECT_LT(many_codes.text.size(), 100000u);

  Arm64Xdata epilogs{.length = 0x10000, .extended = true, .codes = kFrame};
  for (uint32_t at = 0x10; at + 0x10 < epilogs.length; at += 0xC)
    epilogs.epilogs.push_back({at, 0});
  pe = arm64();
  const uint32_t shared = pe.raw_unwind_info(epilogs.bytes());
  for (uint32_t i = 0; i < 100; ++i) pe.arm64_entry(0x10000 * (i + 1), shared);
  const Arm64Rules many_rows = arm64Rules(pe.size_of_image(0x10000000).build());
  EXPECT_TRUE(many_rows.report.limit_reached);
  EXPECT_LT(many_rows.text.size(), 10u << 20);
}

// Codes from an assembler. The goldens have images of compilers, and scripts/check_against_llvm
// checks the values of both.
TEST(Arm64UnwindTest, ReadsTheCodesOfAnAssembler) {
  const Arm64UnwindReport report =
      arm64Rules(read_file(SYMFORGE_FIXTURES "/arm64/codes.dll")).report;
  EXPECT_EQ(report.entries, 33u);
  EXPECT_EQ(report.unsupported, 5u);
  EXPECT_EQ(report.damaged + report.overlapping, 0u);
  EXPECT_FALSE(report.truncated || report.limit_reached);
}

}  // namespace
}  // namespace symforge_internal
