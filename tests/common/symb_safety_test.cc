// Which untrusted SYMB blocks a resolver accepts, and that lookups stay within their limits and the
// block for any contents.

#include "common/symb_safety.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <sstream>
#include <string>

#include "builders/bytes.h"
#include "builders/guarded_block.h"
#include "builders/symb_builder.h"
#include "common/lookup_limits.h"
#include "tests/support/data.h"
#include "tests/support/lines.h"
#include "tests/support/symb_images.h"
#include "tests/support/symbols.h"

using namespace builders;
using test_support::Symbols;

namespace symforge_internal {
namespace {

std::string hex(uint64_t number) {
  std::ostringstream text;
  text << std::hex << number;
  return text.str();
}

bool is_safe(std::string_view block) {
  const GuardedBlock guarded(block);
  return symb_check_safety(guarded.data(), guarded.size());
}
bool is_safe(const SymbModel& model) { return is_safe(model.bytes()); }

void ask_everything(const std::string& block) {
  const Symbols symbols(block);
  for (uint64_t address = 0; address < 0x40; ++address) {
    for (const uint64_t at : {address, address * 0x100, address + UINT32_MAX}) {
      symbols.frame(at);
      symbols.windows(at);
      symbols.cfi(at);
    }
  }
}

TEST(SymbSafetyTest, TakesEveryVersionAndOrder) {
  for (const uint32_t version : {0, 1, 2, 3, 4}) {
    SymbModel model = rich_symb_model(version);
    EXPECT_TRUE(is_safe(model)) << version;
    std::reverse(model.files.begin(), model.files.end());
    std::reverse(model.functions.begin(), model.functions.end());
    std::reverse(model.publics.begin(), model.publics.end());
    std::reverse(model.initial_rules.begin(), model.initial_rules.end());
    std::reverse(model.delta_rules.begin(), model.delta_rules.end());
    for (SymbFunction& function : model.functions) {
      std::reverse(function.sites.begin(), function.sites.end());
    }
    EXPECT_TRUE(is_safe(model)) << version;
  }
}

TEST(SymbSafetyTest, RefusesWhatLeavesTheBlock) {
  const std::string good = rich_symb_model().bytes();
  EXPECT_FALSE(is_safe("SYMB"));
  EXPECT_FALSE(is_safe(good.substr(0, 167)));
  const auto with = [&good](size_t at, uint64_t value) {
    std::string block = good;
    put_u64(block, at, value);
    return block;
  };
  for (const SymbField table : {kSymbFiles, kSymbFunctions, kSymbPublics, kSymbFrameInfo,
                                kSymbInitialRules, kSymbDeltaRules}) {
    EXPECT_FALSE(is_safe(with(table, good.size() - 8))) << table;
    EXPECT_FALSE(is_safe(with(table, ~uint64_t{0} - 8))) << table;
    if (table == kSymbFrameInfo) continue;  // five roots, whatever the count is
    EXPECT_FALSE(is_safe(with(table + 8, uint64_t{1} << 60))) << table;
  }
  // A string without a NUL in the block: the last byte is not NUL.
  SymbModel model;
  model.functions = {{0, 16, 0, "f", {}, {}}};
  std::string block = model.bytes();
  const uint64_t function = get_u32(block, kSymbFunctions);
  block += "tail";
  EXPECT_TRUE(is_safe(block));
  put_u64(block, function, block.size() - 4);
  EXPECT_FALSE(is_safe(block));
}

// The number of references that a relocation changes, and ! if it failed there.
std::string relocated(const std::string& block) {
  std::string moved = block;
  const auto base = reinterpret_cast<uintptr_t>(moved.data());
  const bool complete = symb_relocate(base, moved.size());
  int changed = 0;
  for (size_t at = 0; at + 8 <= block.size(); at += 8) {
    changed += get_u64(moved, at) - get_u64(block, at) == base ? 1 : 0;
  }
  return std::to_string(changed) + (complete ? "" : "!");
}

// What is made of a block: V valid, F its frame info valid, S safe for lookups; its text, = the
// same, - none, or the bytes of another one; the references relocated.
std::string outcome(const std::string& block, const std::string& text) {
  const GuardedBlock copy(block);
  std::string result;
  if (symb_validate(copy.address(), copy.size())) result += 'V';
  // The first range of type 4, which contains others.
  const std::string good = rich_symb_model().bytes();
  const uint64_t range = get_u64(good, get_u64(good, kSymbFrameInfo) + 4 * 64 + 48);
  const uint64_t strings = get_u64(good, kSymbStringTable) + get_u64(good, kSymbStringTable + 8);
  if (valicate_window_frame_info(copy.address() + range, copy.address(), copy.size(), strings)) {
    result += 'F';
  }
  if (symb_check_safety(copy.data(), copy.size())) result += 'S';
  const std::optional<std::string> read = test_support::text_of(block);
  result += !read ? "-" : *read == text ? "=" : std::to_string(read->size());
  return result + ' ' + relocated(block);
}

// Each word of a block in turn: 0, one less, one more, beyond the block, and the largest number.
TEST(SymbSafetyTest, DamagedWordsHaveTheReviewedOutcomes) {
  const std::string good = rich_symb_model().bytes();
  const std::string text = test_support::text_of(good).value();
  std::string table =
      "# Each word of the rich block in turn, as 0, one less, one more, beyond the block and the "
      "largest number:\n# OFFSET: OUTCOMES. A row also holds for the words up to the next row.\n";
  std::string last;
  for (size_t at = 0; at < good.size(); at += 4) {
    const uint32_t word = get_u32(good, at);
    std::string row;
    for (const uint32_t value : {0u, word - 1, word + 1, uint32_t(good.size()) + 1, ~0u}) {
      std::string block = good;
      put_u32(block, at, value);
      row += (row.empty() ? " " : ", ") + outcome(block, text);
    }
    if (row != last) table += std::to_string(at) + ':' + row + '\n';
    last = row;
  }
  EXPECT_EQ(test_support::difference(table, "damaged_words.txt"), "");
}

// One more of each kind than a lookup may cost.
TEST(SymbSafetyTest, RejectsExcessiveCost) {
  const auto sites = [](uint32_t count, uint32_t step, uint32_t size, const std::string& name) {
    SymbModel model;
    model.functions = {{0, 1u << 30, 0, "f", {{0, 16, 1, 1}}, {}}};
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t inside = step == 1 ? 2 * i : 0;
      model.functions[0].sites.push_back({i * step, size - inside, 1, 1, 0, name});
    }
    return model;
  };
  EXPECT_TRUE(is_safe(sites(kMaxInlineSites, 4, 4, "n")));
  EXPECT_FALSE(is_safe(sites(kMaxInlineSites + 1, 4, 4, "n")));
  EXPECT_TRUE(is_safe(sites(1024, 1, 1 << 20, "n")));
  EXPECT_FALSE(is_safe(sites(1025, 1, 1 << 20, "n"))) << "too deep";
  EXPECT_TRUE(is_safe(sites(7, 1, 1 << 20, std::string(1 << 20, 'n'))));
  EXPECT_FALSE(is_safe(sites(8, 1, 1 << 20, std::string(1 << 20, 'n')))) << "too long";
  EXPECT_FALSE(is_safe(sites(1, 1, 1 << 20, std::string((1 << 20) + 1, 'n'))));
  SymbModel unordered = sites(kMaxUnorderedInlineSites, 4, 4, "n");
  std::swap(unordered.functions[0].sites.front(), unordered.functions[0].sites.back());
  EXPECT_TRUE(is_safe(unordered));
  unordered.functions[0].sites.push_back({2, 1, 1, 1, 0, "n"});
  EXPECT_FALSE(is_safe(unordered));

  SymbModel rules;
  rules.initial_rules = {{0, 1 << 20, ".cfa: 1"}};
  for (uint32_t i = 0; i < 5000; ++i) rules.delta_rules.emplace_back(i, ".cfa: $rsp 8 +");
  EXPECT_TRUE(is_safe(rules));
  for (uint32_t i = 5000; i < 9000; ++i) rules.delta_rules.emplace_back(i, ".cfa: $rsp 8 +");
  EXPECT_FALSE(is_safe(rules));
  rules.initial_rules[0].size = 5000;
  EXPECT_TRUE(is_safe(rules)) << "rules in no range";
  rules.delta_rules.assign(97, {0, ".cfa: " + std::string(5300, '1')});
  EXPECT_TRUE(is_safe(rules));
  rules.delta_rules.push_back(rules.delta_rules[0]);
  EXPECT_FALSE(is_safe(rules)) << "long texts";

  const auto nested = [](size_t depth) {
    SymbRange range{uint32_t{1} << 20, uint32_t{1} << 20, ""};
    for (uint32_t i = 1; i < depth; ++i) {
      range = {(1u << 20) - i, (1u << 20) + i, "", 0, {std::move(range)}};
    }
    SymbModel model;
    model.frame_info[4] = {std::move(range)};
    return model;
  };
  EXPECT_TRUE(is_safe(nested(kMaxFrameInfoDepth)));
  EXPECT_FALSE(is_safe(nested(kMaxFrameInfoDepth + 1)));
  EXPECT_NE(Symbols(nested(kMaxFrameInfoDepth).bytes()).windows(1 << 20), nullptr);
  EXPECT_EQ(Symbols(nested(kMaxFrameInfoDepth + 1).bytes()).windows(1 << 20), nullptr);

  // Functions that share one array of lines.
  SymbModel shared;
  for (uint32_t i = 0; i < 3; ++i) shared.functions.push_back({i * 16, 16, 0, "f", {}, {}});
  for (uint32_t i = 0; i < 40; ++i) shared.functions[0].lines.push_back({i, 1, 1, 1});
  std::string block = shared.bytes();
  const uint64_t function = get_u32(block, kSymbFunctions);
  EXPECT_TRUE(is_safe(block));
  for (const uint64_t other : {function + 48, function + 96}) {
    put_u32(block, other + 20, 40);
    put_u64(block, other + 24, get_u32(block, function + 24));
  }
  EXPECT_FALSE(is_safe(block));
}

// Blocks in memory are not checked, so lookups must enforce their limits.
TEST(SymbSafetyTest, LookupsStayInsideDamagedBlocks) {
  std::mt19937_64 random(3);
  for (int round = 0; round < 3000; ++round) {
    std::string block = rich_symb_model(1 + random() % 3).bytes();
    for (uint64_t left = 1 + random() % 3; left > 0; --left) {
      const uint64_t values[] = {0,
                                 1,
                                 block.size() - 8,
                                 block.size(),
                                 random() % block.size(),
                                 uint64_t{1} << 32,
                                 ~uint64_t{0} - 64};
      put_u64(block, 8 + random() % (block.size() / 8 - 1) * 8, values[random() % 7]);
    }
    if (round % 4 == 0) block.resize(random() % block.size());
    if (block.size() < 4) continue;
    ask_everything(block);
  }
}

TEST(SymbSafetyTest, TextModulesKeepToTheLimits) {
  std::string text = "FUNC 0 10 0 " + std::string(kMaxStringBytes + 1, 'n') + "\n";
  text += "STACK CFI INIT 0 10000 .cfa: 1\n";
  for (int i = 1; i < 9000; ++i) text += "STACK CFI " + hex(i) + " r: 1\n";
  for (uint32_t i = 0; i <= kMaxFrameInfoDepth; ++i) {
    text += "STACK WIN 4 " + hex(0x10000 - i) + " " + hex(2 * i + 1) + " 0 0 0 0 0 0 0 0\n";
  }
  const Symbols symbols(text);
  EXPECT_EQ(symbols.frame(0).function_name.size(), kMaxStringBytes);
  EXPECT_EQ(symbols.cfi(4000), ".cfa: 1 .ra:  r: 1");
  EXPECT_EQ(symbols.cfi(8999), "");
  EXPECT_EQ(symbols.windows(0x10000), nullptr);
  EXPECT_NE(symbols.windows(0x10001), nullptr);
}

}  // namespace
}  // namespace symforge_internal
