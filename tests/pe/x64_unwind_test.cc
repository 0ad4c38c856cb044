// Unwind data of x64 images as rules at each instruction.

#include "symforge/src/pe/x64_unwind.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "builders/pe_builder.h"
#include "tests/support/memory_file.h"

namespace symforge_internal {
namespace {

using namespace builders;  // NOLINT: short names of operations in long tables
using test_support::MemoryFile;
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
  const struct {
    Slots slots;  // the last instruction first
    std::string rules;
    uint8_t frame_register = 0;
    uint8_t frame_offset = 0;
  } cases[] = {
      {{}, kEntry},
      {{unwind_slot(6, kAllocSmall, 3), unwind_slot(2, kPushNonvol, kRdi), kPushRbx},
       kEntry + "1001 .cfa: $rsp 16 + $rbx: .cfa 16 - ^\n1002 .cfa: $rsp 24 + $rdi: .cfa 24 - ^\n"
                "1006 .cfa: $rsp 56 +\n"},
      {{unwind_slot(7, kAllocLarge, 0), 0x20}, kEntry + "1007 .cfa: $rsp 264 +\n"},
      {{unwind_slot(7, kAllocLarge, 1), 0xFFF8, 0xFFFF}, kEntry + "1007 .cfa: $rsp 4294967296 +\n"},
      // A push of a volatile register or of the stack pointer only moves the stack pointer.
      {{unwind_slot(2, kPushNonvol, kRsp), unwind_slot(1, kPushNonvol, kRax)},
       kEntry + "1001 .cfa: $rsp 16 +\n1002 .cfa: $rsp 24 +\n"},
      // The first saved copy of a register is the caller's value.
      {{unwind_slot(7, kSaveNonvol, kRbx), 1, unwind_slot(2, kPushNonvol, kRbx), kPushRbx},
       kEntry + "1001 .cfa: $rsp 16 + $rbx: .cfa 16 - ^\n1002 .cfa: $rsp 24 +\n"},
      // Offsets of saved registers are relative to the stack pointer after all allocations. The
      // slots can be in the caller's frame.
      {{unwind_slot(11, kSaveNonvol, kRsi), 2, unwind_slot(9, kAllocSmall, 3),
        unwind_slot(5, kSaveNonvol, kRbx), 6, unwind_slot(2, kSaveNonvolFar, kRdi), 0, 2},
       kEntry + "1002 $rdi: .cfa 131032 + ^\n1005 $rbx: .cfa 8 + ^\n1009 .cfa: $rsp 40 +\n"
                "100b $rsi: .cfa 24 - ^\n"},
      // XMM registers have no rules.
      {{unwind_slot(12, kSaveXmm128Far, 6), 0, 1, unwind_slot(8, kSaveXmm128, 6), 1,
        unwind_slot(4, kAllocSmall, 2)},
       kEntry + "1004 .cfa: $rsp 32 +\n"},
      // Operations with equal offsets are one row. Those with offset 0 apply from the first
      // instruction.
      {{unwind_slot(6, kSaveNonvol, kRsi), 1, unwind_slot(6, kAllocSmall, 1),
        unwind_slot(0, kPushNonvol, kRbx)},
       ".cfa: $rsp 16 + .ra: .cfa 8 - ^ $rbx: .cfa 16 - ^\n"
       "1006 .cfa: $rsp 32 + $rsi: .cfa 24 - ^\n"},
      // At the end of the prolog all operations apply. A descending offset counts as the previous
      // one.
      {{unwind_slot(0xFF, kAllocSmall, 0)}, kEntry + "1020 .cfa: $rsp 16 +\n"},
      {{unwind_slot(2, kAllocSmall, 0), unwind_slot(6, kPushNonvol, kRbx)},
       kEntry + "1006 .cfa: $rsp 24 + $rbx: .cfa 16 - ^\n"},
      // With a frame register, later allocations have no effect, and offsets of saved registers are
      // relative to the stack pointer at that point.
      {{unwind_slot(14, kAllocSmall, 15), unwind_slot(10, kSaveNonvol, kRsi), 3,
        unwind_slot(9, kSetFpreg, 0), unwind_slot(4, kAllocSmall, 5),
        unwind_slot(1, kPushNonvol, kRbp)},
       kEntry +
           "1001 .cfa: $rsp 16 + $rbp: .cfa 16 - ^\n1004 .cfa: $rsp 64 +\n1009 .cfa: $rbp 32 +\n"
           "100a $rsi: .cfa 40 - ^\n",
       kRbp,
       2},
      {{unwind_slot(4, kSetFpreg, 0)}, kEntry + "1004 .cfa: $r13 232 -\n", kR13, 15},
      // The frame of an interrupt contains the old stack pointer.
      {{unwind_slot(4, kAllocSmall, 0), unwind_slot(0, kPushMachframe, 0)},
       ".cfa: $rsp 40 + .ra: .cfa 40 - ^ $rsp: .cfa 16 - ^\n1004 .cfa: $rsp 48 +\n"},
      {{unwind_slot(4, kSaveNonvol, kRbx), 0, unwind_slot(0, kPushMachframe, 1)},
       ".cfa: $rsp 48 + .ra: .cfa 40 - ^ $rsp: .cfa 16 - ^\n1004 $rbx: .cfa 48 - ^\n"},
  };
  for (const auto& c : cases) {
    const Result result = resultOf(Unwind{.prolog_size = 0x20,
                                          .frame_register = c.frame_register,
                                          .frame_offset = c.frame_offset,
                                          .slots = c.slots});
    EXPECT_EQ(result.report.damaged, 0u);
    EXPECT_EQ(result.lines, "INIT 1000 40 " + c.rules);
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
  constexpr uint32_t kSelf = PeBuilder::kUnwindRva;
  const struct {
    Unwind info;
    size_t damaged = 1;
    size_t unknown_version = 0;
  } cases[] = {
      {{.version = 0}, 0, 1},
      {{.slots = {unwind_slot(1, kAllocSmall, 0)}, .version = 3}, 0, 1},
      {{.slots = {unwind_slot(4, kEpilog, 1)}}},
      {{.slots = {kPushRbx, unwind_slot(4, kEpilog, 1)}, .version = 2}},
      {{.slots = {unwind_slot(4, 7, 0), 0, 0}, .version = 2}},
      {{.slots = {unwind_slot(4, 11, 0)}}},
      {{.slots = {unwind_slot(4, kAllocLarge, 2), 0, 0}}},
      {{.slots = {kPushRbx, unwind_slot(4, kAllocLarge, 0)}}},
      {{.slots = {unwind_slot(4, kAllocLarge, 1), 1}}},
      {{.slots = {unwind_slot(4, kSaveNonvol, kRbx)}}},
      {{.slots = {unwind_slot(4, kSaveXmm128Far, 6), 1}}},
      {{.slots = {unwind_slot(4, kSetFpreg, 0)}}},
      {{.frame_register = kRsp, .slots = {unwind_slot(4, kSetFpreg, 0)}}},
      {{.slots = {unwind_slot(4, kPushMachframe, 2)}}},
      {{.slots = {unwind_slot(4, kPushMachframe, 0), kPushRbx}}},
      {{.slots = {unwind_slot(4, kPushMachframe, 0), unwind_slot(0, kPushMachframe, 0)}}},
      {{.flags = kUnwindChained, .chained = {0, 0, 0x09000000}}},
      {{.flags = kUnwindChained, .chained = {0, 0, kSelf}}},
      {{.flags = kUnwindChained, .chained = {0, 0, PeBuilder::kFunctionsRva | 1}}},
      {{.flags = kUnwindChained, .chained = {0, 0, (kSelf + 4) | 1}}},
  };
  for (const auto& c : cases) {
    const Result result = resultOf(c.info);
    EXPECT_EQ(result.report.entries, 1u);
    EXPECT_EQ(result.report.damaged, c.damaged);
    EXPECT_EQ(result.report.unknown_version, c.unknown_version);
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

struct Prolog {
  Slots slots;
  uint8_t frame_register = 0;
  uint8_t frame_offset = 0;
};

// push rbx; push rbp; push r13; sub rsp, 32; mov [rsp + 64], rsi
const Prolog kPushes = {{unwind_slot(8, kSaveNonvol, kRsi), 8, unwind_slot(7, kAllocSmall, 3),
                         unwind_slot(4, kPushNonvol, kR13), unwind_slot(2, kPushNonvol, kRbp),
                         kPushRbx}};
const std::string kPops = "\x41\x5D\x5D\x5B";  // pop r13; pop rbp; pop rbx

// The rows of an epilog that undoes kPushes: where the pops start and where the epilog ends.
std::string rowsOfPops(uint32_t pops, uint32_t end) {
  char rows[400];
  std::snprintf(rows, sizeof(rows),
                "%x .cfa: $rsp 32 + $rsi: $rsi\n%x .cfa: $rsp 24 + $r13: $r13\n"
                "%x .cfa: $rsp 16 + $rbp: $rbp\n%x .cfa: $rsp 8 + $rbx: $rbx\n"
                "%x .cfa: $rsp 64 + $rbx: .cfa 16 - ^ $rbp: .cfa 24 - ^ $rsi: .cfa 0 - ^ "
                "$r13: .cfa 32 - ^\n",
                pops, pops + 2, pops + 3, pops + 4, end);
  return rows;
}

// push rbp; sub rsp, 48; the frame register is set to 16 bytes above the stack pointer
Prolog prologWithFrame(uint8_t reg) {
  return {{unwind_slot(8, kSetFpreg, 0), unwind_slot(4, kAllocSmall, 5),
           unwind_slot(1, kPushNonvol, kRbp)},
          reg,
          1};
}

// The rows of its epilog, given the address at which it pops rbp.
std::string rowsWithFrame(uint32_t pop, const char* reg) {
  char rows[200];
  std::snprintf(rows, sizeof(rows),
                "%x .cfa: $rsp 16 +\n%x .cfa: $rsp 8 + $rbp: $rbp\n"
                "%x .cfa: $%s 48 + $rbp: .cfa 16 - ^\n",
                pop, pop + 1, pop + 2, reg);
  return rows;
}

// Version 2 lists epilogs before the operations of the prolog. Each case has one at 0x1020 in a
// function that ends at 0x1040.
TEST(X64UnwindTest, WritesTheRowsOfListedEpilogs) {
  const struct {
    Prolog prolog;
    std::string code;
    size_t size;
    std::string rows;  // empty: the code is not that epilog
  } cases[] = {
      // The final instructions. The size includes the first byte of the last instruction, all of
      // it, or none.
      {kPushes, kPops + "\xC3", 5, rowsOfPops(0x1020, 0x1025)},
      {kPushes, kPops + "\xC3", 4, rowsOfPops(0x1020, 0x1025)},
      {kPushes,
       kPops + "\xC2\x08"
               "A",
       5, rowsOfPops(0x1020, 0x1027)},
      {kPushes, kPops + "\xF3\xC3", 6, rowsOfPops(0x1020, 0x1026)},
      {kPushes, kPops + "\xEB\x10", 5, rowsOfPops(0x1020, 0x1026)},
      {kPushes, kPops + "\xE9\x10\x10\x10\x10", 5, rowsOfPops(0x1020, 0x1029)},
      {kPushes, kPops + "\xFF\x25\x10\x10\x10\x10", 5, rowsOfPops(0x1020, 0x102A)},
      {kPushes, kPops + "\x48\xFF\xE0", 5, rowsOfPops(0x1020, 0x1027)},
      {kPushes, kPops + "\x41\xFF\x64\x24\x10", 9, rowsOfPops(0x1020, 0x1029)},
      {kPushes, kPops + "\xFF\xA4\xC8\x10\x10\x10\x10", 5, rowsOfPops(0x1020, 0x102B)},
      // The stack is freed first.
      {kPushes, "\x48\x83\xC4\x20" + kPops + "\xC3", 9, rowsOfPops(0x1024, 0x1029)},
      {kPushes, std::string("\x48\x81\xC4\x20\0\0\0", 7) + kPops + "\xC3", 12,
       rowsOfPops(0x1027, 0x102C)},
      {prologWithFrame(kRbp), "\x48\x8D\x65\x20\x5D\xC3", 6, rowsWithFrame(0x1024, "rbp")},
      {prologWithFrame(kRbp), std::string("\x48\x8D\xA5\x20\0\0\0\x5D\xC3", 9), 9,
       rowsWithFrame(0x1027, "rbp")},
      {prologWithFrame(12), "\x49\x8D\x64\x24\x20\x5D\xC3", 7, rowsWithFrame(0x1025, "r12")},
      {prologWithFrame(kRbp), "\x5D\xC3", 2, rowsWithFrame(0x1020, "rbp")},
      {{{unwind_slot(4, kSetFpreg, 0), unwind_slot(1, kPushNonvol, kRbp)}, kRbp},
       "\x48\x89\xEC\x5D\xC3",
       5,
       "1023 .cfa: $rsp 16 +\n1024 .cfa: $rsp 8 + $rbp: $rbp\n"
       "1025 .cfa: $rbp 16 + $rbp: .cfa 16 - ^\n"},
      {{{unwind_slot(4, kSetFpreg, 0), unwind_slot(2, kPushNonvol, kR13)}, kR13},
       "\x49\x8B\xE5\x41\x5D\xC3",
       6,
       "1023 .cfa: $rsp 16 +\n1025 .cfa: $rsp 8 + $r13: $r13\n"
       "1026 .cfa: $r13 16 + $r13: .cfa 16 - ^\n"},
      // A pop of a volatile register only moves the stack pointer.
      {{{unwind_slot(1, kPushNonvol, 1)}},
       "\x59\xC3",
       2,
       "1021 .cfa: $rsp 8 +\n1022 .cfa: $rsp 16 +\n"},
      {{{unwind_slot(4, kAllocSmall, 4)}},
       "\xC3",
       1,
       "1020 .cfa: $rsp 8 +\n1021 .cfa: $rsp 48 +\n"},
      // Code that does not undo exactly the prolog, or has a different size.
      {kPushes, kPops + "\xC3", 3, ""},
      {kPushes, kPops + "\xC3", 6, ""},
      {kPushes, kPops + "\xCC", 4, ""},
      {kPushes, kPops + "\xFF\xD0", 5, ""},
      {kPushes, "\x5D\x41\x5D\x5B\xC3", 5, ""},
      {kPushes, "\x5D\x5B\xC3", 3, ""},
      {kPushes, kPops + "\x59\xC3", 6, ""},
      {kPushes, kPops + "\x5C\xC3", 6, ""},
      {kPushes, "\x48\x83\xC4\x28" + kPops + "\xC3", 9, ""},
      {kPushes, "\x48\x8D\x65\x20" + kPops + "\xC3", 9, ""},
      {prologWithFrame(kRbp), "\x48\x8D\x65\x28\x5D\xC3", 6, ""},
      {prologWithFrame(kR13), "\x48\x8D\x65\x20\x5D\xC3", 6, ""},
      {kPushes, std::string(28, '\x90') + kPops, 32, ""},
      {{{unwind_slot(0, kPushMachframe, 0)}}, "\xC3", 1, ""},
  };
  for (const auto& c : cases) {
    Slots slots = {unwind_slot(static_cast<uint8_t>(c.size), kEpilog, 0),
                   unwind_slot(0x20, kEpilog, 0)};
    slots.insert(slots.end(), c.prolog.slots.begin(), c.prolog.slots.end());
    const Unwind info{.prolog_size = 8,
                      .frame_register = c.prolog.frame_register,
                      .frame_offset = c.prolog.frame_offset,
                      .slots = slots,
                      .version = 2};
    const Result result = resultOf(info, std::string(0x20, '\x90') + c.code);
    const size_t rows = std::min(result.lines.find("\n102"), result.lines.size() - 1) + 1;
    EXPECT_EQ(result.lines.substr(rows), c.rows);
    EXPECT_EQ(result.report.unmatched_epilogs, c.rows.empty() ? 1u : 0u) << c.rows;
  }
}

TEST(X64UnwindTest, FindsEpilogsByTheirDistanceFromTheEnd) {
  // sub rsp, 8 ... ret at 0x1008, 0x1010 and 0x103F
  std::string code(0x40, '\x90');
  for (const size_t ret : {0x08, 0x10, 0x3F}) code[ret] = '\xC3';
  const std::string prolog = "INIT 1000 40 " + kEntry + "1004 .cfa: $rsp 16 +\n";
  const auto ret = [](uint32_t address) {
    char rows[100];
    std::snprintf(rows, sizeof(rows), "%x .cfa: $rsp 8 +\n%x .cfa: $rsp 16 +\n", address,
                  address + 1);
    return std::string(rows);
  };
  const auto listed = [](uint16_t distance) {
    return unwind_slot(static_cast<uint8_t>(distance), kEpilog,
                       static_cast<uint8_t>(distance >> 8));
  };
  const struct {
    Slots epilogs;
    std::string rows;
    size_t unmatched = 0;
  } cases[] = {
      {{unwind_slot(1, kEpilog, 0)}, ""},
      {{unwind_slot(1, kEpilog, 1)}, "103f .cfa: $rsp 8 +\n"},
      {{unwind_slot(1, kEpilog, 1), listed(0)}, "103f .cfa: $rsp 8 +\n"},
      {{unwind_slot(1, kEpilog, 1), 0}, "103f .cfa: $rsp 8 +\n"},
      {{unwind_slot(1, kEpilog, 0), listed(0x30), listed(0x38), listed(0)},
       ret(0x1008) + ret(0x1010)},
      {{unwind_slot(1, kEpilog, 1), listed(0x38)}, ret(0x1008) + "103f .cfa: $rsp 8 +\n"},
      // Twice; in the prolog; before the function; and where there is none.
      {{unwind_slot(1, kEpilog, 0), listed(0x38), listed(0x38)}, ret(0x1008), 1},
      {{unwind_slot(1, kEpilog, 0), listed(0x3D)}, "", 1},
      {{unwind_slot(1, kEpilog, 0), listed(0x41), listed(0x138)}, "", 2},
      {{unwind_slot(1, kEpilog, 0), listed(0x20)}, "", 1},
  };
  for (const auto& c : cases) {
    Slots slots = c.epilogs;
    slots.push_back(unwind_slot(4, kAllocSmall, 0));
    const Result result = resultOf(Unwind{.prolog_size = 4, .slots = slots, .version = 2}, code);
    EXPECT_EQ(result.lines, prolog + c.rows);
    EXPECT_EQ(result.report.unmatched_epilogs, c.unmatched);
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
