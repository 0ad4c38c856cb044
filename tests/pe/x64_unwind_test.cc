// Unwind data of x64 images as rules at each instruction.

#include "symforge/src/pe/x64_unwind.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "builders/pe_builder.h"
#include "tests/support/data.h"
#include "tests/support/memory_file.h"
#include "tests/support/unwind_cases.h"

namespace symforge_internal {
namespace {

using namespace builders;  // NOLINT: short names of operations in long tables
using namespace test_support;
using Slots = std::vector<uint16_t>;
using Unwind = builders::UnwindInfo;

enum Register : uint8_t { kRax = 0, kRbx = 3, kRsp = 4, kRbp = 5, kRsi = 6, kRdi = 7, kR13 = 13 };

struct Result {
  X64UnwindReport report;
  std::string lines;  // each without "STACK CFI "
};

Result resultOf(const std::string& image, const std::vector<CodeRange>& functions = {}) {
  MMapWrapper mapping;
  EXPECT_TRUE(mapping.Map(MemoryFile(image).path()));
  TextBuffer out;
  Result result;
  result.report = writeX64UnwindRules(PeImage(mapping), functions, out);
  std::string_view rest = out.view();
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n') + 1);
    EXPECT_EQ(line.substr(0, 10), "STACK CFI ");
    result.lines += line.substr(10);
    rest.remove_prefix(line.size());
  }
  return result;
}

// The rules of a function of 0x40 bytes at 0x1000 that starts with `code`.
Result resultOf(const Unwind& info, std::string code = "") {
  code.resize(0x40, '\x90');
  return resultOf(PeBuilder().section(".text", 0x1000, code).function(0x1000, 0x1040, info).build(),
                  {{0x1000, 0x40}});
}

// The end of the INIT line of most functions.
const std::string kEntry = ".cfa: $rsp 8 + .ra: .cfa 8 - ^\n";

const uint16_t kPushRbx = unwind_slot(1, kPushNonvol, kRbx);

TEST(X64UnwindTest, WritesARowAfterEachInstruction) {
  for (const TestCase& c : test_cases("x64_unwind.txt", "rows")) {
    const Result result = resultOf(x64_unwind("prolog=0x20 " + c.input));
    EXPECT_EQ(result.report.damaged, 0u) << c.input;
    EXPECT_EQ(cfi_rows(result.lines), c.expected) << c.input;
  }
}

TEST(X64UnwindTest, StartsAChainedRangeWithTheFramesOfItsParents) {
  PeBuilder pe;
  const Unwind first{.prolog_size = 9,
                     .frame_register = kRbp,
                     .slots = {unwind_slot(9, kSetFpreg, 0), unwind_slot(5, kAllocSmall, 3),
                               unwind_slot(1, kPushNonvol, kRbp)}};
  const uint32_t first_rva = pe.unwind_info(first);
  const Unwind second{.flags = kUnwindChained,
                      .prolog_size = 5,
                      .frame_register = kRbp,
                      .slots = {unwind_slot(5, kSaveNonvol, kRsi), 1},
                      .chained = {0x1000, 0x1010, first_rva}};
  const uint32_t second_rva = pe.unwind_info(second);
  // Without operations of its own, and through an entry that refers to another.
  pe.function_entry({0x1000, 0x1010, first_rva}).function_entry({0x1010, 0x1020, second_rva});
  pe.function(0x1020, 0x1030, {.flags = kUnwindChained, .chained = {0x1010, 0x1020, second_rva}});
  pe.function_entry({0x1030, 0x1040, (PeBuilder::kFunctionsRva + 12) | 1});
  const Result result = resultOf(pe.build());
  EXPECT_EQ(result.lines,
            "INIT 1000 10 " + kEntry +
                "1001 .cfa: $rsp 16 + $rbp: .cfa 16 - ^\n1005 .cfa: $rsp 48 +\n"
                "1009 .cfa: $rbp 48 +\n"
                "INIT 1010 10 .cfa: $rbp 48 + .ra: .cfa 8 - ^ $rbp: .cfa 16 - ^\n"
                "1015 $rsi: .cfa 40 - ^\n"
                "INIT 1020 10 .cfa: $rbp 48 + .ra: .cfa 8 - ^ $rbp: .cfa 16 - ^ $rsi: .cfa 40 - ^\n"
                "INIT 1030 10 .cfa: $rbp 48 + .ra: .cfa 8 - ^ $rbp: .cfa 16 - ^\n"
                "1035 $rsi: .cfa 40 - ^\n");
  EXPECT_EQ(result.report.entries, 4u);
}

TEST(X64UnwindTest, WritesNoRulesForInvalidData) {
  for (const TestCase& c : test_cases("x64_unwind.txt", "invalid")) {
    const Result result = resultOf(x64_unwind(c.input));
    EXPECT_EQ(result.report.entries, 1u);
    EXPECT_EQ(result.report.damaged, c.expected == "damaged" ? 1u : 0u) << c.input;
    EXPECT_EQ(result.report.unknown_version, c.expected == "version" ? 1u : 0u) << c.input;
    EXPECT_EQ(result.lines, "") << "neither rows nor a leaf";
  }
}

// A chain of `records` records, the last one not chained.
std::string imageWithChain(size_t records) {
  PeBuilder pe;
  uint32_t last = pe.unwind_info({.slots = {kPushRbx}});
  for (size_t i = 1; i < records; ++i) {
    last = pe.unwind_info({.flags = kUnwindChained, .chained = {0, 0, last}});
  }
  return pe.function_entry({0x1000, 0x1001, last}).build();
}

TEST(X64UnwindTest, FollowsAsManyLinksAsWindowsDoes) {
  EXPECT_EQ(resultOf(imageWithChain(kMostUnwindLinks)).report.damaged, 0u);
  EXPECT_EQ(resultOf(imageWithChain(kMostUnwindLinks + 1)).report.damaged, 1u);
}

TEST(X64UnwindTest, BoundsTheWorkOnSharedRecords) {
  PeBuilder pe;
  const uint32_t shared =
      pe.unwind_info({.prolog_size = 255, .slots = Slots(255, unwind_slot(1, kAllocSmall, 0))});
  constexpr size_t kEntries = 1000;
  for (uint32_t i = 0; i < kEntries; ++i) {
    pe.function_entry({0x1000 + i * 256, 0x1100 + i * 256, shared});
  }
  const X64UnwindReport report = resultOf(pe.build()).report;
  const size_t most = (kFewestUnwindSlots + kUnwindSlotsPerEntry * kEntries) / 255;
  EXPECT_EQ(report.entries, kEntries);
  EXPECT_GE(report.damaged, kEntries - most);
  EXPECT_LE(report.damaged, kEntries - most + 10);
}

TEST(X64UnwindTest, SortsEntriesAndDropsThoseThatOverlap) {
  PeBuilder pe;
  const uint32_t info = pe.unwind_info({.slots = {unwind_slot(0, kAllocSmall, 0)}});
  const FunctionEntry entries[] = {{0x1020, 0x1030, info}, {0, 0, 0},
                                   {0x1010, 0x1018, info}, {0x1010, 0x1030, info},
                                   {0x1017, 0x1020, info}, {0x1038, 0x1038, info},
                                   {0x1038, 0x1030, info}};
  for (const FunctionEntry& entry : entries) pe.function_entry(entry);
  const Result result = resultOf(pe.build(), {{0x1000, 0x1C}, {0x1028, 0x18}});
  const std::string rules = " .cfa: $rsp 16 + .ra: .cfa 8 - ^\n";
  EXPECT_EQ(result.lines, "INIT 1000 10 " + kEntry + "INIT 1010 8" + rules + "INIT 1018 4 " +
                              kEntry + "INIT 1020 10" + rules + "INIT 1030 10 " + kEntry);
  EXPECT_EQ(result.report.entries, 6u);
  EXPECT_EQ(result.report.overlapping, 2u);
  EXPECT_EQ(result.report.damaged, 2u);
}

TEST(X64UnwindTest, AssumesNoLeavesIfTheExceptionDirectoryExceedsTheFile) {
  const std::vector<CodeRange> functions = {{0x1000, 8}, {0x1010, 8}, {0x1020, 8}};
  PeBuilder pe;
  EXPECT_EQ(resultOf(pe.build(), {{0x1000, 8}}).lines, "INIT 1000 8 " + kEntry) << "no directory";
  pe.function(0x1010, 0x1018, {});
  pe.directory(3, PeBuilder::kFunctionsRva, 36);
  const Result cut = resultOf(pe.build(), functions);
  EXPECT_TRUE(cut.report.truncated);
  EXPECT_EQ(cut.lines, "INIT 1000 8 " + kEntry + "INIT 1010 8 " + kEntry);
  const Result lost = resultOf(pe.directory(3, 0x09000000, 12).build(), functions);
  EXPECT_TRUE(lost.report.truncated);
  EXPECT_EQ(lost.lines, "");
}

TEST(X64UnwindTest, WritesTheRowsOfListedEpilogs) {
  for (const TestCase& c : test_cases("x64_unwind.txt", "epilogs")) {
    Unwind info = x64_unwind(c.section + " version=2 prolog=8");
    const auto size = static_cast<uint8_t>(number_of(c.input, "size"));
    info.slots.insert(info.slots.begin(),
                      {unwind_slot(size, kEpilog, 0), unwind_slot(0x20, kEpilog, 0)});
    const std::string code = std::string(0x20, '\x90') + from_hex(word_of(c.input, "code"));
    const Result result = resultOf(info, code);
    const std::string rows = cfi_rows(result.lines);
    const size_t at = rows.find("; 102");
    EXPECT_EQ(at == rows.npos ? "none" : rows.substr(at + 2), c.expected) << c.input;
    EXPECT_EQ(result.report.unmatched_epilogs, c.expected == "none" ? 1u : 0u) << c.input;
  }
}

TEST(X64UnwindTest, FindsEpilogsByTheirDistanceFromTheEnd) {
  std::string code(0x40, '\x90');
  for (const size_t ret : {0x08, 0x10, 0x3F}) code[ret] = '\xC3';
  const std::string prolog = "INIT 1000 40 .cfa: $rsp 8 + .ra: .cfa 8 - ^; 1004 .cfa: $rsp 16 +";
  for (const TestCase& c : test_cases("x64_unwind.txt", "distances")) {
    Unwind info = x64_unwind("version=2 prolog=4 " + c.input);
    info.slots.push_back(unwind_slot(4, kAllocSmall, 0));
    const Result result = resultOf(info, code);
    const std::string rows = c.expected.size() < 3 ? "" : "; " + c.expected.substr(3);
    EXPECT_EQ(cfi_rows(result.lines), prolog + rows) << c.input;
    EXPECT_EQ(std::to_string(result.report.unmatched_epilogs), c.expected.substr(0, 1)) << c.input;
  }
}

// Code whose last instruction continues after the function is no epilog.
TEST(X64UnwindTest, FindsNoEpilogsThatTheEndOfTheFunctionCuts) {
  for (const auto& [unwind, end] :
       {std::pair("slots=1:epilog:1,4:small:4", "\xEB"),
        std::pair("slots=2:epilog:1,4:small:4", "\xE9\x10"),
        std::pair("register=5 slots=3:epilog:1,4:fpreg:0,1:push:5", "\x48\x8D\x65")}) {
    const std::string code = std::string(0x40 - std::strlen(end), '\x90') + end;
    const Result result = resultOf(x64_unwind(std::string("version=2 prolog=4 ") + unwind), code);
    EXPECT_EQ(result.report.unmatched_epilogs, 1u) << unwind;
  }
}

// In the chained range, an epilog undoes a frame that the parent built.
TEST(X64UnwindTest, UndoesTheParentsFrameInAnEpilog) {
  PeBuilder pe;
  const uint32_t parent = pe.unwind_info({.prolog_size = 1, .slots = {kPushRbx}, .version = 2});
  pe.section(".text", 0x1000, std::string(0x1E, '\x90') + "\x5B\xC3");
  pe.function(0x1010, 0x1020,
              {.flags = kUnwindChained,
               .slots = {unwind_slot(2, kEpilog, 1), unwind_slot(0, kEpilog, 0)},
               .chained = {0x1000, 0x1010, parent},
               .version = 2});
  EXPECT_EQ(resultOf(pe.build()).lines,
            "INIT 1010 10 .cfa: $rsp 16 + .ra: .cfa 8 - ^ $rbx: .cfa 16 - ^\n"
            "101f .cfa: $rsp 8 + $rbx: $rbx\n");
}

// Ranges and rows are in the order that the text format requires.
void expectOrdered(const std::string& lines) {
  uint64_t end = 0;
  uint64_t last = 0;
  for (size_t at = 0; at < lines.size(); at = lines.find('\n', at) + 1) {
    uint32_t address = 0;
    uint32_t size = 0;
    if (std::sscanf(lines.c_str() + at, "INIT %x %x", &address, &size) == 2) {
      ASSERT_GE(address, end) << lines;
      end = uint64_t{address} + size;
    } else {
      ASSERT_EQ(std::sscanf(lines.c_str() + at, "%x", &address), 1);
      ASSERT_GT(address, last) << lines;
      ASSERT_LT(address, end) << lines;
    }
    last = address;
  }
}

TEST(X64UnwindTest, SurvivesAnyDamagedByteAndAnyEndOfTheFile) {
  PeBuilder pe;
  pe.section(".text", 0x1000, std::string(0x20, '\x90') + "\x48\x83\xC4\x10\x5B\xC3");
  const uint32_t parent = pe.unwind_info({.prolog_size = 1, .slots = {kPushRbx}});
  pe.function(0x1000, 0x1010, {.prolog_size = 1, .slots = {kPushRbx}});
  pe.function(0x1010, 0x1026,
              {.flags = kUnwindChained,
               .prolog_size = 10,
               .slots = {unwind_slot(6, kEpilog, 1), unwind_slot(6, kSaveNonvol, kRsi), 2,
                         unwind_slot(4, kAllocSmall, 1)},
               .chained = {0x1000, 0x1010, parent},
               .version = 2});
  const std::string image = pe.build();
  const std::vector<CodeRange> functions = {{0x1000, 0x26}};
  EXPECT_EQ(resultOf(image, functions).report.unmatched_epilogs, 0u);
  const size_t headers = PeBuilder::kNtHeaders + 264;  // the required headers
  for (size_t size = headers; size < image.size(); ++size) {
    expectOrdered(resultOf(image.substr(0, size), functions).lines);
  }
  for (size_t at = headers; at < image.size(); ++at) {
    for (const uint8_t change : {0x01, 0x02, 0x04, 0x10, 0x20, 0x40, 0x80, 0xFF}) {
      std::string damaged = image;
      damaged[at] = static_cast<char>(damaged[at] ^ change);
      expectOrdered(resultOf(damaged, functions).lines);
    }
  }
}

}  // namespace
}  // namespace symforge_internal
