// From SYMB blocks to text, and relocation.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "builders/bytes.h"
#include "builders/guarded_block.h"
#include "builders/symb_builder.h"
#include "common/symb.h"
#include "common/text_buffer.h"

using namespace builders;

namespace {

constexpr const char* kNotRead = "(false)";

// Reads a copy that ends at an unreadable page.
std::string read(const std::string& block) {
  const GuardedBlock copy(block);
  TextBuffer text;
  text.append("before ");
  const bool good = symb_read(copy.data(), copy.size(), text);
  if (!good) {
    EXPECT_EQ(text.view(), "before ");
    return kNotRead;
  }
  return std::string(text.view().substr(7));
}

const char kRichText[] =
    "MODULE windows x86_64 0123 a.pdb\n"
    "INFO CODE_ID 5F1E2D3C21000 a.exe\n"
    "INFO SECTION 0 virtaddr 1000 rawsize 400\n"
    "INFO SECTION 1 virtaddr 123456789a rawsize 200\n"
    "FILE -1 negative.cpp\n"
    "FILE 1 c:\\src\\a b.cpp\n"
    "FILE 7 b.cpp\n"
    "PUBLIC 800 4 below\n"
    "FUNC 1000 100 8 main\n"
    "1000 10 10 1\n"
    "1010 80 20 7\n"
    "I 1010 40 30 1 0 outer\n"
    "I 1020 20 40 7 1 middle\n"
    "I 1028 8 50 9 2 inner\n"
    "I 1060 8 60 1 0 second\n"
    "PUBLIC 1100 0 between\n"
    "FUNC 1200 10 ffffffff no_lines\n"
    "FUNC 2000 20 0 last\n"
    "2000 8 -3 99\n"
    "PUBLIC 2000 0 same\n"
    "PUBLIC 3000 ffffffff above\n"
    "STACK WIN 4 1000 100 1 2 3 4 5 6 1 $T0 .raSearch =\n"
    "STACK WIN 4 1010 10 1 2 3 4 5 6 1 inner program\n"
    "STACK WIN 4 1030 10 1 2 3 4 5 6 0 0\n"
    "STACK WIN 4 1200 100 1 2 3 4 5 6 0 0\n"
    "STACK WIN 3 1500 100 1 2 3 4 5 6 0 0\n"
    "STACK WIN 0 1080 80 1 2 3 4 5 6 0 1\n"
    "STACK WIN 0 1700 100 1 2 3 4 5 6 0 1\n"
    "STACK CFI INIT 1000 100 .cfa: $rsp 8 + .ra: .cfa 8 - ^\n"
    "STACK CFI 1000 .cfa: $rsp 32 +\n"
    "STACK CFI 1004 $rbx: 7\n"
    "STACK CFI INIT 1100 10 .cfa: $rsp 16 +\n"
    "STACK CFI 1100 .cfa: $rsp 48 +\n";

// The lines of a text but those that begin with one of the words.
std::string without(std::string_view text, std::initializer_list<std::string_view> words) {
  std::string kept;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n') + 1);
    text.remove_prefix(line.size());
    bool drop = false;
    for (const std::string_view word : words) drop |= line.starts_with(word);
    if (!drop) kept += line;
  }
  return kept;
}

TEST(SymbReadTest, PrintsEveryKindOfLineInEveryVersion) {
  EXPECT_EQ(read(rich_symb_model(3).bytes()), kRichText);
  EXPECT_EQ(read(rich_symb_model(2).bytes()), without(kRichText, {"I "}));
  EXPECT_EQ(read(rich_symb_model(1).bytes()), without(kRichText, {"I ", "INFO SECTION"}));

  // The version is compared with 2 only.
  std::string block = rich_symb_model(3).bytes();
  put_u32(block, kSymbVersion, 77);
  EXPECT_EQ(read(block), kRichText);
  block = rich_symb_model(1).bytes();
  put_u32(block, kSymbVersion, 0);
  EXPECT_EQ(read(block), without(kRichText, {"I ", "INFO SECTION"}));

  EXPECT_EQ(read(SymbModel().bytes()), "MODULE windows x86_64 0123 a.pdb\n");
}

TEST(SymbReadTest, OddBlocksPrintWhatTheyPointAt) {
  const std::string base = rich_symb_model().bytes();
  const uint64_t functions = get_u64(base, kSymbFunctions);

  // A mandatory string at 0 is the magic and the version up to their first NUL.
  std::string block = base;
  put_u64(block, kSymbOs, 0);
  EXPECT_TRUE(read(block).starts_with("MODULE SYMB\x03 x86_64"));

  // One half of the code identifier alone is none.
  block = base;
  put_u64(block, kSymbCodeFile, 0);
  put_u64(block, kSymbCodeId, UINT64_MAX);
  EXPECT_EQ(read(block), without(kRichText, {"INFO CODE_ID"}));

  // A function without a reference to lines prints neither lines nor sites.
  block = base;
  put_u64(block, functions + 24, 0);
  EXPECT_EQ(read(block), without(kRichText, {"1000", "1010", "I "}));

  // Initial rules absent: no delta rules either. Ends of their ranges are 32-bit sums.
  block = base;
  put_u64(block, kSymbInitialRules + 8, 0);
  EXPECT_EQ(read(block), without(kRichText, {"STACK CFI"}));
  SymbModel model;
  model.initial_rules = {{0xffffff00, 0x100, "a: 1"}};
  model.delta_rules = {{0xffffff80, "b: 2"}};
  EXPECT_EQ(read(model.bytes()),
            "MODULE windows x86_64 0123 a.pdb\nSTACK CFI INIT ffffff00 100 a: 1\n");

  // Tables need not be aligned.
  block = base + std::string(3, '\0') + base.substr(get_u64(base, kSymbFiles), 3 * 16);
  put_u64(block, kSymbFiles, base.size() + 3);
  EXPECT_EQ(read(block), kRichText);

  // Functions may share lines.
  block = base;
  put_u32(block, functions + 48 + 20, 1);
  put_u64(block, functions + 48 + 24, get_u64(base, functions + 24));
  EXPECT_NE(read(block).find("no_lines\n1000 10 10 1\nI 1200 8 1 1 0 unseen\n"), std::string::npos);
}

TEST(SymbReadTest, RefusesWhatLiesOutsideTheBlock) {
  const std::string base = rich_symb_model().bytes();
  const uint64_t functions = get_u64(base, kSymbFunctions);
  const uint64_t roots = get_u64(base, kSymbFrameInfo);
  const uint64_t map4 = get_u64(base, roots + 4 * 64 + 48);
  const uint64_t end = base.size();
  const struct {
    const char* what;
    size_t field;
    uint64_t value;
  } kCases[] = {
      {"string at the end", kSymbOs, end},
      {"string beyond the end", kSymbOs, end + 1},
      {"code identifier", kSymbCodeId, end + 1},
      {"string table", kSymbStringTable, end + 1},
      {"file table", kSymbFiles, end + 1},
      {"file table without room", kSymbFiles, end},
      {"file table at 0", kSymbFiles, 0},
      {"function table at 0", kSymbFunctions, 0},
      {"public table at 0", kSymbPublics, 0},
      {"frame info roots at 0", kSymbFrameInfo, 0},
      {"initial rules at 0", kSymbInitialRules, 0},
      {"delta rules at 0", kSymbDeltaRules, 0},
      {"sections at 0", kSymbSections, 0},
      {"sections", kSymbSections, end + 1},
      {"file count", kSymbFiles + 8, end / 16 + 1},
      {"count whose product wraps", kSymbFiles + 8, (1ull << 60) + 1},
      {"function count", kSymbFunctions + 8, UINT64_MAX},
      {"public count", kSymbPublics + 8, UINT64_MAX / 16},
      {"root count", kSymbFrameInfo + 8, UINT64_MAX / 64},
      {"initial rule count", kSymbInitialRules + 8, 1ull << 60},
      {"delta rule count", kSymbDeltaRules + 8, 1ull << 32},
      {"section count", kSymbSections + 8, 1ull << 60},
      {"function name", functions, end},
      {"lines", functions + 24, end + 1},
      {"lines without room", functions + 24, end - 16},
      {"inlines at 0", functions + 40, 0},
      {"inlines", functions + 40, end - 64},
      {"ranges", map4, end},
      {"range count", roots + 4 * 64 + 56, 1ull << 58},
      {"ranges that contain themselves", map4 + 48, map4},
      {"program", map4 + 32, end},
  };
  for (const auto& c : kCases) {
    std::string block = base;
    put_u64(block, c.field, c.value);
    if (c.field == map4) put_u64(block, roots + 4 * 64 + 48, c.value);
    EXPECT_EQ(read(block), kNotRead) << c.what;
  }

  std::string block = base;
  put_u64(block, map4 + 2 * 64 + 48, map4);  // a range inside the first one
  put_u64(block, map4 + 2 * 64 + 56, 1);
  EXPECT_EQ(read(block), kNotRead) << "a range around its container";

  block = base;
  put_u64(block, kSymbOs, end);
  EXPECT_EQ(read(block + "no end"), kNotRead);
  EXPECT_NE(read(block + std::string("end\0", 4)), kNotRead);
}

TEST(SymbReadTest, EndsOnAbsurdSharing) {
  // Every range of an array shares one leaf array, so a block of n bytes stands for n * n ranges.
  SymbModel model;
  model.frame_info[0].resize(3000, {0, 0, "", 0, {}});
  std::string block = model.bytes();
  const uint64_t map = get_u64(block, get_u64(block, kSymbFrameInfo) + 48);
  const uint64_t leaves = block.size();
  block.append(3000 * 64, '\0');
  for (uint64_t i = 0; i < 3000; ++i) {
    put_u64(block, map + i * 64 + 48, leaves);
    put_u64(block, map + i * 64 + 56, 3000);
  }
  EXPECT_EQ(read(block), kNotRead);
}

TEST(SymbReadTest, SurvivesDeepNesting) {
  SymbModel model;
  model.frame_info[0] = {{0, 9, ""}};
  std::string block = model.bytes();
  constexpr uint64_t kDepth = 200000;
  const uint64_t map = get_u64(block, get_u64(block, kSymbFrameInfo) + 48);
  const std::string range = block.substr(map, 64);
  for (uint64_t i = 1; i < kDepth; ++i) {
    put_u64(block, map + (i - 1) * 64 + 48, map + i * 64);
    put_u64(block, map + (i - 1) * 64 + 56, 1);
    block.append(range);
  }
  EXPECT_EQ(symb_validate(reinterpret_cast<uint64_t>(block.data()), block.size()), true);
  const std::string text = read(block);
  EXPECT_EQ(static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n')), kDepth + 1);
}

TEST(SymbTouchTest, ChangesTheAccessTimeOnly) {
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  const timespec old[2] = {{1000, 0}, {2000, 0}};
  ASSERT_EQ(futimens(fileno(file), old), 0);
  symb_touch(fileno(file));
  struct stat times;
  ASSERT_EQ(fstat(fileno(file), &times), 0);
  EXPECT_GT(times.st_atim.tv_sec, 1000);
  EXPECT_EQ(times.st_mtim.tv_sec, 2000);
  std::fclose(file);
  symb_touch(-1);
}

}  // namespace
