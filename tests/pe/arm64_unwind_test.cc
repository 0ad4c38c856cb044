// Unwind data of ARM64 images as STACK CFI lines.

#include "symforge/src/pe/arm64_unwind.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "builders/arm64_unwind_builder.h"
#include "builders/pe_builder.h"
#include "tests/support/memory_file.h"

namespace symforge_internal {
namespace {

using namespace builders;
using test_support::MemoryFile;

struct Written {
  std::string text;
  Arm64UnwindReport report;
};

// The rules of a whole image, with its table in the exception directory.
Written written(const std::string& image, const std::vector<CodeRange>& functions = {}) {
  symforge_internal::MMapWrapper mapping;
  EXPECT_TRUE(mapping.Map(MemoryFile(image).path()));
  const symforge_internal::PeImage pe(mapping);
  if (pe.ntHeaders() == nullptr) return {};
  const auto& directory = pe.ntHeaders()->OptionalHeader.DataDirectory[3];
  TextBuffer out;
  Written result;
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

// The lines of a function at 0x1000.
std::string linesOf(uint32_t unwind_data) {
  return written(arm64().arm64_entry(0x1000, unwind_data).build()).text;
}
std::string linesOf(const Arm64Xdata& record) {
  PeBuilder pe = arm64();
  const uint32_t rva = pe.raw_unwind_info(record.bytes());
  return written(pe.arm64_entry(0x1000, rva).build()).text;
}

// The expected lines: "SIZE" with the rules at entry, then rows "ADDRESS RULES".
std::string lines(const std::string& size, const std::vector<std::string>& rows,
                  const std::string& first = ".cfa: sp 0 + .ra: x30") {
  std::string text = "STACK CFI INIT 1000 " + size + " " + first + "\n";
  for (const std::string& row : rows) text += "STACK CFI " + row + "\n";
  return text;
}

const std::string kEnd = "\xE4";

// Each code as the only one of a prolog: its row, if it has one.
TEST(Arm64UnwindTest, DecodesEachCode) {
  const struct {
    std::string codes;
    std::string rules;
  } cases[] = {
      {{"\x00", 1}, ""},
      {"\x01", ".cfa: sp 16 +"},
      {"\x1F", ".cfa: sp 496 +"},
      {"\x24", ".cfa: sp 32 + x19: .cfa 32 - ^ x20: .cfa 24 - ^"},
      {"\x42", ".ra: .cfa 24 + ^ x29: .cfa 16 + ^"},
      {"\x81", ".cfa: sp 16 + .ra: .cfa 8 - ^ x29: .cfa 16 - ^"},
      {"\xBF", ".cfa: sp 512 + .ra: .cfa 504 - ^ x29: .cfa 512 - ^"},
      {"\xC7\xFF", ".cfa: sp 32752 +"},
      {"\xC8\x82", "x21: .cfa 16 + ^ x22: .cfa 24 + ^"},
      {"\xCA\x03", "x27: .cfa 24 + ^ x28: .cfa 32 + ^"},
      {"\xCC\x83", ".cfa: sp 32 + x21: .cfa 32 - ^ x22: .cfa 24 - ^"},
      {"\xD0\x42", "x20: .cfa 16 + ^"},
      {"\xD2\xC2", ".ra: .cfa 16 + ^"},
      {"\xD4\x83", ".cfa: sp 32 + x23: .cfa 32 - ^"},
      {"\xD5\x61", ".cfa: sp 16 + .ra: .cfa 16 - ^"},
      {"\xD6\x82", ".ra: .cfa 24 + ^ x23: .cfa 16 + ^"},
      {"\xD8\x42", "d9: .cfa 16 + ^ d10: .cfa 24 + ^"},
      {"\xDA\x43", ".cfa: sp 32 + d9: .cfa 32 - ^ d10: .cfa 24 - ^"},
      {"\xDC\xC2", "d11: .cfa 16 + ^"},
      {"\xDE\x43", ".cfa: sp 32 + d10: .cfa 32 - ^"},
      {{"\xE0\x01\x00\x00", 4}, ".cfa: sp 1048576 +"},
      {"\xE0\xFF\xFF\xFF", ".cfa: sp 268435440 +"},
      {"\xE1", ".cfa: x29 0 +"},
      {"\xE2\x04", ".cfa: x29 32 -"},
      {"\xE3", ""},
      {"\xFC", ""},
      // save_any_*: single and pair, in place and pre-indexed, for all three register files.
      {"\xE7\x14\x03", "x20: .cfa 24 + ^"},
      {"\xE7\x54\x03", "x20: .cfa 48 + ^ x21: .cfa 56 + ^"},
      {"\xE7\x34\x03", ".cfa: sp 64 + x20: .cfa 64 - ^"},
      {"\xE7\x74\x03", ".cfa: sp 64 + x20: .cfa 64 - ^ x21: .cfa 56 - ^"},
      {"\xE7\x1E\x03", ".ra: .cfa 24 + ^"},
      {"\xE7\x05\x03", ""},  // x5 is not preserved
      {"\xE7\x0A\x43", "d10: .cfa 24 + ^"},
      {"\xE7\x4A\x43", "d10: .cfa 48 + ^ d11: .cfa 56 + ^"},
      {"\xE7\x6A\x43", ".cfa: sp 64 + d10: .cfa 64 - ^ d11: .cfa 56 - ^"},
      {"\xE7\x0A\x83", "d10: .cfa 48 + ^"},
      {"\xE7\x4F\x83", "d15: .cfa 48 + ^"},  // q16 is not preserved
      {"\xE7\x2A\x83", ".cfa: sp 64 + d10: .cfa 64 - ^"},
      {"\xE7\x6A\x83", ".cfa: sp 64 + d10: .cfa 64 - ^ d11: .cfa 48 - ^"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> rows;
    if (!c.rules.empty()) rows.push_back("1004 " + c.rules);
    EXPECT_EQ(linesOf(Arm64Xdata{.length = 0x20, .codes = c.codes + kEnd}), lines("20", rows))
        << c.rules;
  }
}

// In the record, save_next precedes the pair that it continues; in the prolog it follows it.
TEST(Arm64UnwindTest, ContinuesPairs) {
  const struct {
    std::string pair;
    std::vector<std::string> rows;
  } cases[] = {
      {"\x26",
       {".cfa: sp 48 + x19: .cfa 48 - ^ x20: .cfa 40 - ^", "x21: .cfa 32 - ^ x22: .cfa 24 - ^",
        "x23: .cfa 16 - ^ x24: .cfa 8 - ^"}},
      {"\xC8\x02",
       {"x19: .cfa 16 + ^ x20: .cfa 24 + ^", "x21: .cfa 32 + ^ x22: .cfa 40 + ^",
        "x23: .cfa 48 + ^ x24: .cfa 56 + ^"}},
      {"\xDA\x05",
       {".cfa: sp 48 + d8: .cfa 48 - ^ d9: .cfa 40 - ^", "d10: .cfa 32 - ^ d11: .cfa 24 - ^",
        "d12: .cfa 16 - ^ d13: .cfa 8 - ^"}},
      {"\xE7\x68\x85",
       {".cfa: sp 96 + d8: .cfa 96 - ^ d9: .cfa 80 - ^", "d10: .cfa 64 - ^ d11: .cfa 48 - ^",
        "d12: .cfa 32 - ^ d13: .cfa 16 - ^"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(linesOf(Arm64Xdata{.length = 0x20, .codes = "\xE6\xE6" + c.pair + kEnd}),
              lines("20", {"1004 " + c.rows[0], "1008 " + c.rows[1], "100c " + c.rows[2]}));
  }
}

// Functions of 0x40 bytes. Rows after the "|" belong to the epilog.
TEST(Arm64UnwindTest, ExpandsPackedEntries) {
  const struct {
    Arm64Packed packed;
    std::vector<std::string> rows;
  } cases[] = {
      {{}, {}},
      {{.frame = 48}, {"1004 .cfa: sp 48 +", "103c .cfa: sp 0 +"}},
      {{.frame = 4096},
       {"1004 .cfa: sp 4080 +", "1008 .cfa: sp 4096 +", "1038 .cfa: sp 4080 +",
        "103c .cfa: sp 0 +"}},
      // An odd number of registers.
      {{.reg_i = 3, .frame = 48},
       {"1004 .cfa: sp 32 + x19: .cfa 32 - ^ x20: .cfa 24 - ^", "1008 x21: .cfa 16 - ^",
        "100c .cfa: sp 48 +", "1034 .cfa: sp 32 +", "1038 x21: x21",
        "103c .cfa: sp 0 + x19: x19 x20: x20"}},
      {{.reg_i = 1, .frame = 16},
       {"1004 .cfa: sp 16 + x19: .cfa 16 - ^", "103c .cfa: sp 0 + x19: x19"}},
      // The return address has its own slot, shares one, is alone, is alone with x19.
      {{.reg_i = 2, .cr = 1, .frame = 32},
       {"1004 .cfa: sp 32 + x19: .cfa 32 - ^ x20: .cfa 24 - ^", "1008 .ra: .cfa 16 - ^",
        "1038 .ra: x30", "103c .cfa: sp 0 + x19: x19 x20: x20"}},
      {{.reg_i = 3, .cr = 1, .frame = 32},
       {"1004 .cfa: sp 32 + x19: .cfa 32 - ^ x20: .cfa 24 - ^",
        "1008 .ra: .cfa 8 - ^ x21: .cfa 16 - ^", "1038 .ra: x30 x21: x21",
        "103c .cfa: sp 0 + x19: x19 x20: x20"}},
      {{.cr = 1, .frame = 16},
       {"1004 .cfa: sp 16 + .ra: .cfa 16 - ^", "103c .cfa: sp 0 + .ra: x30"}},
      {{.reg_i = 1, .cr = 1, .frame = 32},
       {"1004 .cfa: sp 16 +", "1008 .ra: .cfa 8 - ^ x19: .cfa 16 - ^", "100c .cfa: sp 32 +",
        "1034 .cfa: sp 16 +", "1038 .ra: x30 x19: x19", "103c .cfa: sp 0 +"}},
      // Floating point, alone and with the return address.
      {{.reg_f = 2, .frame = 32},
       {"1004 .cfa: sp 32 + d8: .cfa 32 - ^ d9: .cfa 24 - ^", "1008 d10: .cfa 16 - ^",
        "1038 d10: d10", "103c .cfa: sp 0 + d8: d8 d9: d9"}},
      {{.reg_f = 1, .cr = 1, .frame = 32},
       {"1004 .cfa: sp 32 + .ra: .cfa 32 - ^", "1008 d8: .cfa 24 - ^ d9: .cfa 16 - ^",
        "1038 d8: d8 d9: d9", "103c .cfa: sp 0 + .ra: x30"}},
      // Parameters are stored in the prolog only; without other registers they allocate their area.
      {{.reg_i = 2, .homed = 1, .frame = 96},
       {"1004 .cfa: sp 80 + x19: .cfa 80 - ^ x20: .cfa 72 - ^", "1018 .cfa: sp 96 +",
        "1038 .cfa: sp 80 +", "103c .cfa: sp 0 + x19: x19 x20: x20"}},
      {{.homed = 1, .frame = 64}, {"1004 .cfa: sp 64 +", "103c .cfa: sp 0 +"}},
      // Chained frames: small, above 512 and above 4080 bytes, with a signed return address.
      {{.reg_i = 2, .cr = 3, .frame = 32},
       {"1004 .cfa: sp 16 + x19: .cfa 16 - ^ x20: .cfa 8 - ^",
        "1008 .cfa: sp 32 + .ra: .cfa 24 - ^ x29: .cfa 32 - ^", "100c .cfa: x29 32 +",
        "1034 .cfa: sp 32 +", "1038 .cfa: sp 16 + .ra: x30 x29: x29",
        "103c .cfa: sp 0 + x19: x19 x20: x20"}},
      {{.cr = 3, .frame = 528},
       {"1004 .cfa: sp 528 +", "1008 .ra: .cfa 520 - ^ x29: .cfa 528 - ^", "100c .cfa: x29 528 +",
        "1034 .cfa: sp 528 +", "1038 .ra: x30 x29: x29", "103c .cfa: sp 0 +"}},
      {{.cr = 3, .frame = 4096},
       {"1004 .cfa: sp 4080 +", "1008 .cfa: sp 4096 +",
        "100c .ra: .cfa 4088 - ^ x29: .cfa 4096 - ^", "1010 .cfa: x29 4096 +",
        "1030 .cfa: sp 4096 +", "1034 .ra: x30 x29: x29", "1038 .cfa: sp 4080 +",
        "103c .cfa: sp 0 +"}},
      {{.cr = 2, .frame = 512},
       {"1008 .cfa: sp 512 + .ra: .cfa 504 - ^ x29: .cfa 512 - ^", "100c .cfa: x29 512 +",
        "1034 .cfa: sp 512 +", "1038 .cfa: sp 0 + .ra: x30 x29: x29"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(linesOf(arm64_packed(c.packed)), lines("40", c.rows))
        << "RegI " << c.packed.reg_i << " RegF " << c.packed.reg_f << " CR " << c.packed.cr;
  }
}

TEST(Arm64UnwindTest, GivesPackedFragmentsTheRulesOfTheBody) {
  EXPECT_EQ(linesOf(arm64_packed({.flag = 2, .length = 0x20, .reg_i = 2, .cr = 3, .frame = 32})),
            lines("20", {},
                  ".cfa: x29 32 + .ra: .cfa 24 - ^ x19: .cfa 16 - ^ x20: .cfa 8 - ^ "
                  "x29: .cfa 32 - ^"));
}

const std::string kFrame = "\xE1\x81\xE4";  // mov x29,sp; stp x29,lr,[sp,#-16]!
const std::string kBody = ".cfa: x29 16 + .ra: .cfa 8 - ^ x29: .cfa 16 - ^";
const std::vector<std::string> kProlog = {"1004 .cfa: sp 16 + .ra: .cfa 8 - ^ x29: .cfa 16 - ^",
                                          "1008 .cfa: x29 16 +"};

std::vector<std::string> withProlog(std::vector<std::string> rows) {
  rows.insert(rows.begin(), kProlog.begin(), kProlog.end());
  return rows;
}

TEST(Arm64UnwindTest, ReadsEpilogs) {
  const struct {
    Arm64Xdata record;
    std::vector<std::string> rows;
  } cases[] = {
      // In the middle: the rules of the body apply again after the return.
      {{.length = 0x40, .epilogs = {{0x20, 0}}, .codes = kFrame},
       {"1024 .cfa: sp 16 +", "1028 .cfa: sp 0 + .ra: x30 x29: x29", "102c " + kBody}},
      {{.length = 0x40, .epilogs = {{0x34, 0}}, .codes = kFrame},
       {"1038 .cfa: sp 16 +", "103c .cfa: sp 0 + .ra: x30 x29: x29"}},
      // Two in a row, the second with its own codes.
      {{.length = 0x40, .epilogs = {{0x20, 0}, {0x2C, 1}}, .codes = kFrame},
       {"1024 .cfa: sp 16 +", "1028 .cfa: sp 0 + .ra: x30 x29: x29",
        "102c .cfa: sp 16 + .ra: .cfa 8 - ^ x29: .cfa 16 - ^",
        "1030 .cfa: sp 0 + .ra: x30 x29: x29", "1034 " + kBody}},
      // The E bit: the last instructions of the function.
      {{.length = 0x40, .single_epilog = 1, .codes = kFrame},
       {"1038 .cfa: sp 16 +", "103c .cfa: sp 0 + .ra: x30 x29: x29"}},
      {{.length = 0x40, .extended = true, .single_epilog = 1, .codes = kFrame},
       {"1038 .cfa: sp 16 +", "103c .cfa: sp 0 + .ra: x30 x29: x29"}},
      {{.length = 0x40, .handler = true, .extended = true, .epilogs = {{0x38, 1}}, .codes = kFrame},
       {"1038 .cfa: sp 16 +", "103c .cfa: sp 0 + .ra: x30 x29: x29"}},
      // Nothing but a return: a leaf within the function.
      {{.length = 0x40, .epilogs = {{0x3C, 2}}, .codes = kFrame},
       {"103c .cfa: sp 0 + .ra: x30 x29: x29"}},
      // Bytes after the last end code are padding, whatever their value.
      {{.length = 0x40, .handler = true, .codes = kFrame + "\xFF\xE8\xE7\x80\xFF"}, {}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(linesOf(c.record), lines("40", withProlog(c.rows))) << c.rows.size();
  }
  // More scopes than the field in the header can count.
  Arm64Xdata record{.length = 0x1000, .extended = true, .codes = kFrame};
  for (uint32_t i = 1; i <= 100; ++i) record.epilogs.push_back({i * 0x20, 0});
  const std::string text = linesOf(record);
  size_t bodies = 0;
  for (size_t at = text.find(kBody); at != std::string::npos; at = text.find(kBody, at + 1))
    ++bodies;
  EXPECT_EQ(bodies, 100u);
}

// Fragments of a function: the codes after end_c have been executed elsewhere.
TEST(Arm64UnwindTest, ReadsFragments) {
  const std::string host = kBody;
  const struct {
    Arm64Xdata record;
    std::vector<std::string> rows;
  } cases[] = {
      {{.length = 0x20, .codes = "\xE5" + kFrame}, {}},
      {{.length = 0x20, .single_epilog = 0, .codes = "\xE5" + kFrame}, {}},
      {{.length = 0x20, .single_epilog = 1, .codes = "\xE5" + kFrame},
       {"1018 .cfa: sp 16 +", "101c .cfa: sp 0 + .ra: x30 x29: x29"}},
      // A register saved in the fragment only; its epilog ends without a return.
      {{.length = 0x20, .epilogs = {{0x1C, 0}}, .codes = "\xC8\x84\xE5" + kFrame},
       {"1004 x21: .cfa 16 + ^ x22: .cfa 24 + ^"}},
      {{.length = 0x20, .epilogs = {{0x10, 0}, {0x14, 3}}, .codes = "\xC8\x84\xE5" + kFrame},
       {"1004 x21: .cfa 16 + ^ x22: .cfa 24 + ^", "1014 x21: x21 x22: x22", "1018 .cfa: sp 16 +",
        "101c .cfa: sp 0 + .ra: x30 x29: x29"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(linesOf(c.record), lines("20", c.rows, host)) << c.rows.size();
  }
}

// Registers saved after x29 was set, and later changes of the stack pointer.
TEST(Arm64UnwindTest, FollowsTheFramePointer) {
  // sub sp,#32; stp x19,x20,[sp,#16]; add x29,sp,#16; stp x29,lr,[sp,#-64]!
  EXPECT_EQ(linesOf(Arm64Xdata{.length = 0x20, .codes = "\x02\xC8\x02\xE2\x02\x87\xE4"}),
            lines("20", {"1004 .cfa: sp 64 + .ra: .cfa 56 - ^ x29: .cfa 64 - ^",
                         "1008 .cfa: x29 48 +", "100c x19: .cfa 48 - ^ x20: .cfa 40 - ^"}));
  // The caller's value of a register saved twice is in the first slot.
  EXPECT_EQ(linesOf(Arm64Xdata{.length = 0x20, .codes = "\xD0\x03\x24\xE4"}),
            lines("20", {"1004 .cfa: sp 32 + x19: .cfa 32 - ^ x20: .cfa 24 - ^"}));
}

const std::string kGood = "STACK CFI INIT 3000 10 .cfa: sp 0 + .ra: x30\n";

// One bad entry at 0x2000 in a function of 0x80 bytes, and a good one at 0x3000.
Written withGood(PeBuilder& pe, uint32_t unwind_data) {
  pe.arm64_entry(0x2000, unwind_data);
  pe.arm64_entry(0x3000, arm64_packed({.length = 0x10}));
  return written(pe.build(), {{0x2000, 0x80}, {0x3000, 0x10}});
}

TEST(Arm64UnwindTest, LeavesOutDamagedRecords) {
  const Arm64Xdata cases[] = {
      {.length = 0, .codes = kFrame},
      {.length = 0x80, .codes = ""},
      {.length = 0x80, .codes = "\xE1\xE1\xE1\xE1"},              // no end
      {.length = 0x80, .codes = "\xE1\xE5\xE1\xE1"},              // none after end_c
      {.length = 0x80, .codes = "\xE1\xE1\xE1\xC0"},              // truncated inside a code
      {.length = 0x80, .codes = {"\xE1\xE0\x00\x00", 4}},         //
      {.length = 0x04, .codes = kFrame},                          // prolog longer than the function
      {.length = 0x80, .codes = "\xCB\x01" + kEnd},               // x31
      {.length = 0x80, .codes = "\xE7\x5E\x01" + kEnd},           //
      {.length = 0x80, .codes = "\xE7\x5F\x40" + kEnd},           // d32
      {.length = 0x80, .codes = "\xD7\x80" + kEnd},               // x31 with lr
      {.length = 0x80, .codes = "\xE6\x81" + kEnd},               // save_next after no pair
      {.length = 0x80, .codes = "\xE6" + kEnd},                   //
      {.length = 0x80, .codes = "\xE6\xD0\x42" + kEnd},           //
      {.length = 0x80, .codes = "\xE6\xE6\xE6\xCA\x03" + kEnd},   // beyond the last register
      {.length = 0x80, .epilogs = {{0x78, 0}}, .codes = kFrame},  // exceeds the function
      {.length = 0x80, .epilogs = {{0x40000, 0}}, .codes = kFrame},
      {.length = 0x80, .epilogs = {{0x04, 0}}, .codes = kFrame},  // inside the prolog
      {.length = 0x80, .epilogs = {{0x20, 4}}, .codes = kFrame},  // index outside the codes
      {.length = 0x80, .epilogs = {{0x20, 1023}}, .codes = kFrame},
      {.length = 0x80, .single_epilog = 4, .codes = kFrame},
      {.length = 0x0C, .single_epilog = 0, .codes = kFrame},  // no space after the prolog
      {.length = 0x80, .epilogs = {{0x40, 0}, {0x20, 0}}, .codes = kFrame},  // not ascending
      {.length = 0x80, .epilogs = {{0x40, 0}, {0x44, 0}}, .codes = kFrame},  // overlap
  };
  for (const Arm64Xdata& record : cases) {
    PeBuilder pe = arm64();
    const uint32_t rva = pe.raw_unwind_info(record.bytes());
    const Written result = withGood(pe, rva);
    EXPECT_EQ(result.report.entries, 2u);
    EXPECT_EQ(result.report.damaged, 1u) << &record - cases;
    // Of a rejected entry with a known length, the rest of the function is a leaf.
    const bool is_short = record.length != 0 && record.length < 0x80;
    const size_t good = result.text.find(kGood);
    EXPECT_EQ(good != 0, is_short) << &record - cases << result.text;
    EXPECT_EQ(result.text.substr(good), kGood);
  }
}

TEST(Arm64UnwindTest, LeavesOutDamagedPackedEntries) {
  const Arm64Packed cases[] = {
      {.length = 0, .frame = 16},
      {.length = 0x80, .reg_i = 11, .frame = 512},
      {.length = 0x80, .reg_i = 4, .frame = 16},           // too small for the registers
      {.length = 0x80, .reg_i = 2, .cr = 3, .frame = 16},  // too small for x29 and lr
      {.length = 0x80, .cr = 2},
      {.length = 0x08, .reg_i = 2, .frame = 32},  // no space for prolog and epilog
  };
  for (const Arm64Packed& packed : cases) {
    PeBuilder pe = arm64();
    const Written result = withGood(pe, arm64_packed(packed));
    EXPECT_EQ(result.report.damaged, 1u) << &packed - cases;
    EXPECT_TRUE(result.text.ends_with(kGood)) << result.text;
  }
}

TEST(Arm64UnwindTest, LeavesOutWhatRulesCannotDescribe) {
  std::vector<std::string> codes = {{"\xDF\x01"}, {"\xE7\x80\x00", 3}, {"\xE7\x00\xC0", 3}};
  for (int code = 0xE8; code <= 0xFF; ++code)
    if (code != 0xFC) codes.push_back(std::string(1, static_cast<char>(code)) + "\x01\x01\x01\x01");
  for (const std::string& code : codes) {
    // In the prolog, and in an epilog only.
    for (const Arm64Xdata& record :
         {Arm64Xdata{.length = 0x80, .codes = code + kEnd},
          Arm64Xdata{.length = 0x80, .epilogs = {{0x40, 1}}, .codes = kEnd + code + kEnd}}) {
      PeBuilder pe = arm64();
      const uint32_t rva = pe.raw_unwind_info(record.bytes());
      const Written result = withGood(pe, rva);
      EXPECT_EQ(result.report.unsupported, 1u) << std::hex << int{static_cast<uint8_t>(code[0])};
      EXPECT_EQ(result.text, kGood);
    }
  }
  for (const Arm64Xdata& record :
       {Arm64Xdata{.length = 0x80, .version = 1, .codes = kFrame},
        Arm64Xdata{.length = 0x80, .epilogs = {{0x20, 0, 1}}, .codes = kFrame}}) {
    PeBuilder pe = arm64();
    const uint32_t rva = pe.raw_unwind_info(record.bytes());
    EXPECT_EQ(withGood(pe, rva).report.unsupported, 1u);
  }
  // The reserved flag leaves the entry's length unknown: its function has no rules.
  PeBuilder pe = arm64();
  const Written result = withGood(pe, arm64_packed({.flag = 3, .length = 0x10}));
  EXPECT_EQ(result.report.unsupported, 1u);
  EXPECT_EQ(result.text, kGood);
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
    const Written result = written(pe.build());
    EXPECT_EQ(result.report.damaged, size < bytes.size() ? 1u : 0u) << size;
    EXPECT_EQ(result.text.empty(), size < bytes.size());
  }
}

TEST(Arm64UnwindTest, ReadsTheEntriesOfATruncatedTable) {
  PeBuilder pe = arm64();
  pe.section(".text", 0x1000, std::string(0x40, 0));
  pe.section(".pdata", 0x4000,
             Bytes().u32(0x1010).u32(arm64_packed({.length = 0x10})).u32(0).str());
  const Written result = written(pe.directory(3, 0x4000, 64).build(), {{0x1000, 0x40}});
  EXPECT_TRUE(result.report.truncated);
  // Code above the last entry may belong to a missing one.
  EXPECT_EQ(result.text,
            "STACK CFI INIT 1000 10 .cfa: sp 0 + .ra: x30\n"
            "STACK CFI INIT 1010 10 .cfa: sp 0 + .ra: x30\n");
  const Written none = written(arm64().directory(3, 0x00700000, 64).build(), {{0x1000, 0x40}});
  EXPECT_TRUE(none.report.truncated);
  EXPECT_EQ(none.text, "");
}

TEST(Arm64UnwindTest, TakesTheFirstOfOverlappingEntries) {
  const uint32_t word = arm64_packed({.length = 0x40, .frame = 32});
  PeBuilder pe = arm64();
  pe.arm64_entry(0x3000, word).arm64_entry(0x1000, word).arm64_entry(0x1000, word + 4);
  pe.arm64_entry(0x103C, word).arm64_entry(0x1040, word).arm64_entry(0, 0);
  const Written result = written(pe.build());
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
  const Written result = written(pe.build(), {{0x1000, 0x30}, {0x1100, 8}});
  const std::string leaf = " .cfa: sp 0 + .ra: x30\n";
  EXPECT_EQ(result.text, "STACK CFI INIT 1000 10" + leaf +
                             "STACK CFI INIT 1010 10 .cfa: sp 32 + .ra: x30\n"
                             "STACK CFI INIT 1020 10" +
                             leaf + "STACK CFI INIT 1100 8" + leaf);
  // An image without a table has leaf functions only.
  EXPECT_EQ(written(arm64().build(), {{0x1100, 8}}).text, "STACK CFI INIT 1100 8" + leaf);
}

// Records shared by many entries: time and output are bounded by the size of the file.
TEST(Arm64UnwindTest, BoundsSharedRecords) {
  PeBuilder pe = arm64();
  const std::string codes = "\xE5" + std::string(1018, '\xE3') + kEnd;
  const uint32_t rva =
      pe.raw_unwind_info(Arm64Xdata{.length = 4, .extended = true, .codes = codes}.bytes());
  for (uint32_t i = 0; i < 20000; ++i) pe.arm64_entry(0x1000 + 4 * i, rva);
  const Written many_codes = written(pe.build(), {{0x1000, 80000}});
  EXPECT_TRUE(many_codes.report.limit_reached);
  EXPECT_LT(many_codes.text.size(), 100000u);

  Arm64Xdata epilogs{.length = 0x10000, .extended = true, .codes = "\xE1\x81\xE4"};
  for (uint32_t at = 0x10; at + 0x10 < epilogs.length; at += 0xC)
    epilogs.epilogs.push_back({at, 0});
  pe = arm64();
  const uint32_t shared = pe.raw_unwind_info(epilogs.bytes());
  for (uint32_t i = 0; i < 100; ++i) pe.arm64_entry(0x10000 * (i + 1), shared);
  const Written many_rows = written(pe.size_of_image(0x10000000).build());
  EXPECT_TRUE(many_rows.report.limit_reached);
  EXPECT_LT(many_rows.text.size(), 10u << 20);
}

// The output of compilers and the assembler decodes. scripts/check_against_llvm checks the values.
TEST(Arm64UnwindTest, ReadsTheFixtures) {
  const struct {
    const char* name;
    size_t entries;
    size_t unsupported;
  } cases[] = {
      {"frames_o0", 28, 0}, {"frames_o2", 19, 0}, {"frames_signed", 19, 0}, {"codes", 33, 5}};
  for (const auto& c : cases) {
    const std::string path = std::string(SYMFORGE_FIXTURES "/arm64/") + c.name + ".dll";
    const Arm64UnwindReport report = written(read_file(path)).report;
    EXPECT_EQ(report.entries, c.entries) << path;
    EXPECT_EQ(report.unsupported, c.unsupported) << path;
    EXPECT_EQ(report.damaged + report.overlapping, 0u) << path;
    EXPECT_FALSE(report.truncated || report.limit_reached) << path;
  }
}

}  // namespace
}  // namespace symforge_internal
