// Lookups in text modules and in SYMB blocks. The blocks are in read-only memory that ends at an
// inaccessible page.

#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <random>
#include <sstream>
#include <thread>

#include "builders/bytes.h"
#include "builders/symb_builder.h"
#include "builders/symbol_text.h"
#include "processor/contained_range_map.h"
#include "tests/support/data.h"
#include "tests/support/module_lookups.h"
#include "tests/support/symb_images.h"
#include "tests/support/symbols.h"

using namespace google_breakpad;
using namespace builders;
using test_support::image_of;
using test_support::Symbols;
using test_support::test_cases;
using test_support::test_data;

namespace {

constexpr uint64_t kBase = 0x7ff600000000;

Symbols symbols_of(const std::string& content) { return Symbols(content, kBase); }
Symbols symbols_of(const SymbModel& model) { return Symbols(model.bytes(), kBase); }

// "name@base file:line@base | inline file:line | ...", with bases relative to the module.
std::string described(const StackFrame& frame, bool with_inlines = true) {
  std::ostringstream out;
  if (frame.function_name.empty()) return "nothing";
  out << std::hex << frame.function_name << '@' << frame.function_base - kBase;
  if (frame.source_line != -1) {
    out << ' ' << frame.source_file_name << ':' << std::dec << frame.source_line << '@' << std::hex
        << frame.source_line_base - kBase;
  }
  for (const StackFrame::Inline& site : frame.inlines) {
    if (!with_inlines) break;
    out << " | " << site.name << ' ' << site.source_file_name << ':' << std::dec
        << site.source_line;
  }
  return out.str();
}

std::string described(const std::unique_ptr<WindowsFrameInfo>& info) {
  if (info == nullptr) return "nothing";
  std::ostringstream out;
  out << info->type_ << ' ' << info->valid << ' ' << info->prolog_size << ' ' << info->epilog_size
      << ' ' << info->parameter_size << ' ' << info->saved_register_size << ' ' << info->local_size
      << ' ' << info->max_stack_size << ' ' << info->allocates_base_pointer << ' '
      << info->program_string;
  return out.str();
}

uint64_t address_of(const test_support::TestCase& c) { return std::stoul(c.input, nullptr, 16); }

TEST(LookupTest, FindsFunctionsLinesSitesAndPublics) {
  const Symbols text = symbols_of(test_data("rich_shuffled.sym"));
  const Symbols version_3 = symbols_of(rich_symb_model(3));
  const Symbols version_2 = symbols_of(rich_symb_model(2));
  const Symbols version_1 = symbols_of(rich_symb_model(1));
  for (const auto& c : test_cases("rich_answers.txt", "frames")) {
    SCOPED_TRACE(c.input);
    const StackFrame frame = version_3.frame(address_of(c));
    EXPECT_EQ(described(frame), c.expected);
    EXPECT_EQ(described(text.frame(address_of(c))), described(frame, false));
  }
  for (const auto& c : test_cases("rich_answers.txt", "older versions")) {
    EXPECT_EQ(described(version_2.frame(address_of(c))), c.expected) << c.input;
    EXPECT_EQ(described(version_1.frame(address_of(c))), c.expected) << c.input;
  }
  // In a block, functions and lines use the low 32 bits, publics and inline sites all of them.
  EXPECT_EQ(described(version_3.frame(0x100001010)), "main@1000 b.cpp:20@1010");
  EXPECT_EQ(described(text.frame(0x100001010)), "above@3000");
}

TEST(LookupTest, FindsFrameInfoAndRules) {
  const Symbols text = symbols_of(test_data("rich_shuffled.sym"));
  const Symbols block = symbols_of(rich_symb_model());
  for (const auto& c : test_cases("rich_answers.txt", "frame info")) {
    EXPECT_EQ(described(text.windows(address_of(c))), c.expected) << c.input;
    EXPECT_EQ(described(block.windows(address_of(c))), c.expected) << c.input;
  }
  // See ReadsParametersAtTheStrideOfOlderVersions.
  EXPECT_EQ(described(text.windows(0x2000)), "-1 1 0 0 12 0 0 0 0 ");
  EXPECT_EQ(described(block.windows(0x2000)), "nothing");
  for (const auto& c : test_cases("rich_answers.txt", "rules")) {
    const std::string expected = c.expected == "nothing" ? "" : c.expected;
    EXPECT_EQ(text.cfi(address_of(c)), expected) << c.input;
    EXPECT_EQ(block.cfi(address_of(c)), expected) << c.input;
  }
}

// The sites of a function may be in any order and overlap: the result is that of a tree into which
// they are stored one by one.
TEST(LookupTest, NestsSitesLikeATree) {
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    SymbModel model;
    model.functions = {{0, 64, 0, "f", {{0, 64, 1, 1}}, {}}};
    ContainedRangeMap<uint64_t, int> tree;
    const uint32_t span = round % 2 == 0 ? 16 : 64;
    for (int i = 0; i < 12; ++i) {
      const uint32_t address = random() % span;
      const uint32_t size = random() % (span - address + 1);
      model.functions[0].sites.push_back({address, size, 1, i, 0, "site"});
    }
    if (round % 3 == 0) {
      std::sort(model.functions[0].sites.begin(), model.functions[0].sites.end(),
                [](const SymbSite& a, const SymbSite& b) {
                  return a.address != b.address ? a.address < b.address : a.size > b.size;
                });
    }
    for (const SymbSite& site : model.functions[0].sites) {
      tree.StoreRange(site.address, site.size, site.line);
    }
    const Symbols symbols = symbols_of(model);
    for (uint64_t address = 0; address < 64; ++address) {
      std::vector<int> expected, found;
      tree.RetrieveRangeStack(address, expected);
      const StackFrame frame = symbols.frame(address);
      for (auto site = frame.inlines.rbegin(); site != frame.inlines.rend(); ++site) {
        found.push_back(site->source_line);
      }
      EXPECT_EQ(found, expected) << "round " << round << " address " << address;
    }
  }
}

// In version 3 the fallback reads records of 48 bytes at a stride of 32. Where it expects the
// second of two functions, it reads the `inlines` of the first, whose offset is taken for an
// address.
TEST(LookupTest, ReadsParametersAtTheStrideOfOlderVersions) {
  SymbModel model;
  model.functions = {{0x10, 8, 4, "low", {}, {}}, {0x10000, 8, 8, "high", {}, {}}};
  EXPECT_EQ(described(symbols_of(model).windows(0x12)), "-1 1 0 0 4 0 0 0 0 ");
  EXPECT_EQ(described(symbols_of(model).windows(0x10002)), "nothing");
  model.version = 2;
  EXPECT_EQ(described(symbols_of(model).windows(0x10002)), "-1 1 0 0 8 0 0 0 0 ");
}

// Compares lookups in a text and in its image. Returns how many results had inline frames. The text
// module has none, and its parameter sizes without frame info differ by design.
int expect_agreement(const std::string& content, const std::vector<uint64_t>& addresses) {
  const Symbols text = symbols_of(content);
  const Symbols image = symbols_of(image_of(content).value());
  int with_inlines = 0;
  for (const uint64_t address : addresses) {
    const StackFrame frame = image.frame(address);
    with_inlines += !frame.inlines.empty();
    EXPECT_EQ(described(frame, false), described(text.frame(address))) << address;
    EXPECT_EQ(image.cfi(address), text.cfi(address)) << address;
    const auto info = text.windows(address);
    if (info != nullptr && info->type_ != WindowsFrameInfo::STACK_INFO_UNKNOWN) {
      EXPECT_EQ(described(image.windows(address)), described(info)) << address;
    }
    if (testing::Test::HasFailure()) break;
  }
  return with_inlines;
}

TEST(LookupTest, TextAndBlockAgree) {
  SymbolTextShape shape;
  shape.functions = 5000;
  shape.inline_depth = 3;
  std::mt19937_64 random(11);
  std::vector<uint64_t> addresses(100000);
  for (uint64_t& address : addresses) address = random() % (symbol_text_end(shape) + 0x100);
  EXPECT_GT(expect_agreement(symbol_text(shape), addresses), 10000);

  addresses.resize(0x6000);
  std::iota(addresses.begin(), addresses.end(), 0);
  for (const char* name : {"calls32", "calls64", "engine32", "engine64"}) {
    SCOPED_TRACE(name);
    EXPECT_GT(
        expect_agreement(read_file(std::string(SYMFORGE_FIXTURES "/") + name + ".sym"), addresses),
        0);
  }
}

// With functions out of order, which no index may change: the results of a binary search.
SymbModel disordered(SymbModel model) {
  std::swap(model.functions.front(), model.functions.back());
  model.files.push_back(model.files.front());
  model.delta_rules.push_back(model.delta_rules.front());
  return model;
}

TEST(LookupTest, ArraysAndIndexesAgreeWithSingleLookups) {
  SymbolTextShape shape;
  shape.functions = 40000;  // an index of four levels
  shape.lines = 2;
  shape.inline_depth = 1;
  const std::string at_the_end = image_of(
                                     "MODULE windows x86_64 01 a.pdb\nFUNC 1000 10 0 f\n"
                                     "FUNC fffffff0 f 0 last\nPUBLIC ffffffff 0 end\n")
                                     .value();
  const std::string contents[] = {test_data("rich_shuffled.sym"),
                                  rich_symb_model(1).bytes(),
                                  rich_symb_model(2).bytes(),
                                  rich_symb_model(3).bytes(),
                                  disordered(rich_symb_model()).bytes(),
                                  at_the_end,
                                  image_of(symbol_text(shape)).value(),
                                  read_file(SYMFORGE_FIXTURES "/engine64.sym")};
  std::mt19937_64 random(13);
  std::vector<uint64_t> addresses = {0, UINT32_MAX - 1, UINT32_MAX, UINT64_MAX, 0x100001010};
  for (uint64_t address = 0xff0; address < 0x3100; address += 5) addresses.push_back(address);
  while (addresses.size() < 5000) addresses.push_back(random() % (symbol_text_end(shape) + 0x100));
  for (const std::string& content : contents) {
    const test_support::ModuleLookups plain(content, false);
    const test_support::ModuleLookups indexed(content, true);
    const std::vector<std::string> plain_array = plain.array(addresses);
    const std::vector<std::string> indexed_array = indexed.array(addresses);
    for (size_t i = 0; i < addresses.size() && !HasFailure(); ++i) {
      SCOPED_TRACE(addresses[i]);
      const std::string expected = plain.one(addresses[i]);
      EXPECT_EQ(plain_array[i], expected);
      EXPECT_EQ(indexed_array[i], expected);
      EXPECT_EQ(indexed.one(addresses[i]), expected);
      EXPECT_EQ(indexed.rules(addresses[i]), plain.rules(addresses[i]));
    }
  }
}

TEST(LookupTest, SeveralThreadsShareAReadOnlyBlock) {
  SymbolTextShape shape;
  shape.inline_depth = 2;
  const Symbols symbols = symbols_of(image_of(symbol_text(shape)).value());
  std::atomic<int> wrong = 0;
  const auto work = [&](unsigned seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < 5000; ++i) {
      const uint64_t address = random() % symbol_text_end(shape);
      const StackFrame frame = symbols.frame(address);
      const bool rules = !symbols.cfi(address).empty();
      if ((frame.source_line != -1 || !frame.inlines.empty()) && !rules) ++wrong;
      symbols.windows(address);
    }
  };
  std::vector<std::thread> threads;
  for (unsigned seed = 0; seed < 4; ++seed) threads.emplace_back(work, seed);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
