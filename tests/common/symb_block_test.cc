// Untrusted SYMB blocks: what symb_validate() rejects, and the text that symb_read() creates from
// valid, unusual and damaged blocks. rich.sym is the text of the builders' rich model.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include "base/text_buffer.h"
#include "builders/bytes.h"
#include "builders/guarded_block.h"
#include "builders/symb_builder.h"
#include "common/symb.h"
#include "common/symb_text.h"
#include "tests/support/data.h"
#include "tests/support/lines.h"
#include "tests/support/symb_images.h"

using symforge_internal::TextBuffer;
using symforge_internal::TextDialect;

using namespace builders;
using test_support::lines_without;
using test_support::text_of;

namespace {

constexpr const char* kNotRead = "(false)";
const std::string kRichText = test_support::test_data("rich.sym");

// Reads a copy that ends at an inaccessible page.
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

bool valid(const std::string& block) {
  const GuardedBlock copy(block);
  return symb_validate(copy.address(), copy.size());
}

TEST(SymbBlockTest, PrintsEveryKindOfLineInEveryVersion) {
  EXPECT_EQ(read(rich_symb_model(3).bytes()), kRichText);
  EXPECT_EQ(read(rich_symb_model(2).bytes()), lines_without(kRichText, {"I "}));
  EXPECT_EQ(read(rich_symb_model(1).bytes()), lines_without(kRichText, {"I ", "INFO SECTION"}));

  // The version is only compared with 2.
  std::string block = rich_symb_model(3).bytes();
  put_u32(block, kSymbVersion, 77);
  EXPECT_EQ(read(block), kRichText);
  block = rich_symb_model(1).bytes();
  put_u32(block, kSymbVersion, 0);
  EXPECT_EQ(read(block), lines_without(kRichText, {"I ", "INFO SECTION"}));

  EXPECT_EQ(read(SymbModel().bytes()), "MODULE windows x86_64 0123 a.pdb\n");
}

TEST(SymbBlockTest, OddBlocksPrintWhatTheyPointAt) {
  const std::string base = rich_symb_model().bytes();
  const uint64_t functions = get_u64(base, kSymbFunctions);

  // A required string at 0 is the magic and the version, up to the first NUL.
  std::string block = base;
  put_u64(block, kSymbOs, 0);
  EXPECT_TRUE(read(block).starts_with("MODULE SYMB\x03 x86_64"));

  // Half a code identifier is treated as none.
  block = base;
  put_u64(block, kSymbCodeFile, 0);
  put_u64(block, kSymbCodeId, UINT64_MAX);
  EXPECT_EQ(read(block), lines_without(kRichText, {"INFO CODE_ID"}));

  // A function without a reference to lines is printed without lines and sites.
  block = base;
  put_u64(block, functions + 24, 0);
  EXPECT_EQ(read(block), lines_without(kRichText, {"1000", "1010", "I "}));

  // Without initial rules there are no delta rules. Ends of their ranges are 32-bit sums.
  block = base;
  put_u64(block, kSymbInitialRules + 8, 0);
  EXPECT_EQ(read(block), lines_without(kRichText, {"STACK CFI"}));
  SymbModel model;
  model.initial_rules = {{0xffffff00, 0x100, "a: 1"}};
  model.delta_rules = {{0xffffff80, "b: 2"}};
  EXPECT_EQ(read(model.bytes()),
            "MODULE windows x86_64 0123 a.pdb\nSTACK CFI INIT ffffff00 100 a: 1\n");

  // File and line numbers are signed.
  block = base;
  put_u32(block, get_u64(base, kSymbFiles), 0xFFFFFFFF);
  EXPECT_NE(read(block).find("FILE -1 zero.cpp\n"), std::string::npos);

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

TEST(SymbBlockTest, AcceptsWrittenBlocks) {
  for (const uint32_t version : {1u, 2u, 3u}) {
    EXPECT_TRUE(valid(rich_symb_model(version).bytes())) << version;
  }
  EXPECT_TRUE(valid(SymbModel().bytes()));
  SymbModel model;
  model.functions = {{0xffffff00, 0x100, 0, "up to the last address", {{0xffffffff, 1, 1, 1}}, {}}};
  model.frame_info[0] = {{0, 0xffffffff, "", 0, {{0, 0xffffffff, ""}}}};
  EXPECT_TRUE(valid(model.bytes()));
}

// Damages that a model can express.
TEST(SymbBlockTest, RefusesTablesOutOfOrder) {
  const std::pair<const char*, void (*)(SymbModel&)> kCases[] = {
      {"files", [](SymbModel& m) { std::swap(m.files[0], m.files[1]); }},
      {"file twice", [](SymbModel& m) { m.files[1].first = m.files[2].first; }},
      {"functions", [](SymbModel& m) { std::swap(m.functions[0], m.functions[1]); }},
      {"overlapping functions", [](SymbModel& m) { m.functions[0].size = 0x201; }},
      {"function past 4 GiB", [](SymbModel& m) { m.functions[2].size = 0xffffe001; }},
      {"lines", [](SymbModel& m) { std::swap(m.functions[0].lines[0], m.functions[0].lines[1]); }},
      {"overlapping lines", [](SymbModel& m) { m.functions[0].lines[0].size = 0x11; }},
      {"sites", [](SymbModel& m) { std::swap(m.functions[0].sites[0], m.functions[0].sites[1]); }},
      {"crossing sites", [](SymbModel& m) { m.functions[0].sites[1].size = 0x40; }},
      {"empty site", [](SymbModel& m) { m.functions[0].sites[1].size = 0; }},
      {"site past 4 GiB", [](SymbModel& m) { m.functions[0].sites[3].size = 0xfffffffe; }},
      {"publics", [](SymbModel& m) { std::swap(m.publics[0], m.publics[1]); }},
      {"public twice", [](SymbModel& m) { m.publics[1].address = m.publics[0].address; }},
      {"ranges", [](SymbModel& m) { std::swap(m.frame_info[4][0], m.frame_info[4][1]); }},
      {"overlapping ranges", [](SymbModel& m) { m.frame_info[4][1].base = 0x10ff; }},
      {"range that leaves its container", [](SymbModel& m) { m.frame_info[4][0].last = 0x1038; }},
      {"range below its container", [](SymbModel& m) { m.frame_info[4][0].base = 0x1011; }},
      {"range that ends before it begins", [](SymbModel& m) { m.frame_info[0][1].last = 0x1600; }},
      {"initial rules", [](SymbModel& m) { std::swap(m.initial_rules[0], m.initial_rules[1]); }},
      {"overlapping initial rules", [](SymbModel& m) { m.initial_rules[0].size = 0x101; }},
      {"delta rules", [](SymbModel& m) { std::swap(m.delta_rules[0], m.delta_rules[1]); }},
      {"delta rule twice", [](SymbModel& m) { m.delta_rules[1].first = 0xfff; }},
      {"foreign version", [](SymbModel& m) { m.version = 4; }},
  };
  for (const auto& [what, damage] : kCases) {
    SymbModel model = rich_symb_model();
    damage(model);
    EXPECT_FALSE(valid(model.bytes())) << what;
  }
}

using Names = std::map<std::string, uint64_t>;

// A sum or difference of names and numbers.
uint64_t sum_of(const std::string& text, const Names& names) {
  uint64_t sum = 0;
  for (size_t at = 0, end = 0; at < text.size(); at = end) {
    const char sign = text[at];
    const size_t begin = at + (sign == '+' || sign == '-' ? 1 : 0);
    end = std::min(text.find_first_of("+-", begin), text.size());
    const std::string term = text.substr(begin, end - begin);
    const uint64_t value = names.count(term) ? names.at(term) : std::stoull(term, nullptr, 0);
    sum += sign == '-' ? -value : value;
  }
  return sum;
}

TEST(SymbBlockTest, RefusesDamagedReferences) {
  const std::string base = rich_symb_model().bytes();
  const uint64_t strings = get_u64(base, kSymbStringTable);
  const uint64_t strings_end = strings + get_u64(base, kSymbStringTable + 8);
  const uint64_t functions = get_u64(base, kSymbFunctions);
  const uint64_t root4 = get_u64(base, kSymbFrameInfo) + 4 * 64;
  const uint64_t map4 = get_u64(base, root4 + 48);
  const uint64_t end = base.size();
  const Names names = {{"@Os", kSymbOs},
                       {"@CodeId", kSymbCodeId},
                       {"@StringTable", kSymbStringTable},
                       {"@Files", kSymbFiles},
                       {"@Functions", kSymbFunctions},
                       {"@Publics", kSymbPublics},
                       {"@FrameInfo", kSymbFrameInfo},
                       {"@InitialRules", kSymbInitialRules},
                       {"@DeltaRules", kSymbDeltaRules},
                       {"@Sections", kSymbSections},
                       {"strings", strings},
                       {"strings_end", strings_end},
                       {"files", get_u64(base, kSymbFiles)},
                       {"publics", get_u64(base, kSymbPublics)},
                       {"functions", functions},
                       {"lines", get_u64(base, functions + 24)},
                       {"sites", get_u64(base, functions + 40)},
                       {"root4", root4},
                       {"map4", map4},
                       {"end", end},
                       {"most_files", end / 16}};
  for (const auto& c : test_support::test_cases("damaged_symb.txt")) {
    const size_t equals = c.input.find('=');
    std::string block = base;
    put_u64(block, sum_of(c.input.substr(0, equals), names),
            sum_of(c.input.substr(equals + 1), names));
    EXPECT_FALSE(valid(block)) << c.expected;
    const bool is_read = c.expected.starts_with("text");
    EXPECT_EQ(read(block) != kNotRead, is_read) << c.expected;
    // Sections are not in the published format.
    EXPECT_EQ(text_of(block, TextDialect::kStandard).has_value(),
              is_read || c.expected.starts_with("none: section"))
        << c.expected;
  }

  std::string block = base;
  put_u64(block, map4 + 2 * 64 + 48, map4);  // a range inside the first one
  put_u64(block, map4 + 2 * 64 + 56, 1);
  EXPECT_EQ(read(block), kNotRead) << "a range around its container";

  block = rich_symb_model(2).bytes();  // without inline sites
  EXPECT_NE(read(block), kNotRead);
  put_u64(block, get_u64(block, kSymbFunctions), block.size());
  EXPECT_EQ(read(block), kNotRead) << "name of a function at the end";

  block = base;
  block[strings_end - 1] = 'x';
  EXPECT_FALSE(valid(block)) << "string table without an end";
  block = base;
  put_u64(block, kSymbOs, end);
  EXPECT_EQ(read(block + "no end"), kNotRead);
  EXPECT_NE(read(block + std::string("end\0", 4)), kNotRead);
}

TEST(SymbBlockTest, TerminatesOnExcessiveSharing) {
  // All ranges of an array share one leaf array, so a block of n bytes represents n * n ranges.
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
