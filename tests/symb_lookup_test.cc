// Lookups on SYMB blocks, all on read-only memory that ends at an unreadable page.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>
#include <thread>

#include "builders/bytes.h"
#include "builders/guarded_block.h"
#include "builders/symb_builder.h"
#include "builders/symbol_text.h"
#include "common/symb.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "google_breakpad/processor/stack_frame.h"
#include "processor/contained_range_map.h"

using namespace google_breakpad;
using namespace builders;

namespace {

constexpr uint64_t kBase = 0x7ff600000000;

class Code : public CodeModule {
 public:
  uint64_t base_address() const override { return kBase; }
  uint64_t size() const override { return 0; }
  std::string code_file() const override { return "a.exe"; }
  std::string code_identifier() const override { return ""; }
  std::string debug_file() const override { return "a.pdb"; }
  std::string debug_identifier() const override { return "0123"; }
  std::string version() const override { return ""; }
  CodeModule* Copy() const override { return new Code; }
  uint64_t shrink_down_delta() const override { return 0; }
  void SetShrinkDownDelta(uint64_t) override {}
  bool is_unloaded() const override { return false; }
};

// A resolver with one module, from text or from a block.
class Symbols {
 public:
  explicit Symbols(const std::string& content) : block_(content) {
    if (content.starts_with("SYMB")) block_.make_read_only();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(resolver_.LoadModuleUsingMemoryBuffer(&code_, block_.data(), block_.size()));
    testing::internal::GetCapturedStderr();
  }
  explicit Symbols(const SymbModel& model) : Symbols(model.bytes()) {}

  StackFrame frame_at(uint64_t address) {
    StackFrame frame;
    frame.module = &code_;
    frame.instruction = kBase + address;
    frame.source_file_name = "-";
    frame.source_line = -1;
    return frame;
  }
  StackFrame lookup(uint64_t address) {
    StackFrame frame = frame_at(address);
    resolver_.FillSourceLineInfo(&frame);
    return frame;
  }
  std::unique_ptr<WindowsFrameInfo> frame_info(uint64_t address) {
    const StackFrame frame = frame_at(address);
    return std::unique_ptr<WindowsFrameInfo>(resolver_.FindWindowsFrameInfo(&frame));
  }
  std::unique_ptr<CFIFrameInfo> cfi(uint64_t address) {
    const StackFrame frame = frame_at(address);
    return std::unique_ptr<CFIFrameInfo>(resolver_.FindCFIFrameInfo(&frame));
  }

 private:
  Code code_;
  GuardedBlock block_;
  BasicSourceLineResolver resolver_;
};

// "name@base file:line@base | inline file:line | ..."; bases relative to the module.
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

std::string described(const WindowsFrameInfo* info) {
  if (info == nullptr) return "nothing";
  std::ostringstream out;
  out << info->type_ << ' ' << info->valid << ' ' << info->prolog_size << ' ' << info->epilog_size
      << ' ' << info->parameter_size << ' ' << info->saved_register_size << ' ' << info->local_size
      << ' ' << info->max_stack_size << ' ' << info->allocates_base_pointer << ' '
      << info->program_string;
  return out.str();
}

std::string described(const CFIFrameInfo* info) {
  if (info == nullptr) return "nothing";
  std::string text = info->cfa_rule() + " / " + info->ra_rule();
  for (const auto& [name, rule] : info->register_rules()) text += " / " + name + " = " + rule;
  return text;
}

TEST(SymbLookupTest, FindsFunctionsLinesSitesAndPublics) {
  const struct {
    uint64_t address;
    const char* version_3;
    const char* version_2;
  } kCases[] = {
      {0x7ff, "nothing", "nothing"},
      {0x800, "below@800", "nothing"},
      {0xfff, "below@800", "nothing"},
      {0x1000, "main@1000 c:\\src\\a b.cpp:10@1000", "main@1000 c:\\src\\a b.cpp:10@1000"},
      {0x1010, "main@1000 b.cpp:20@1010 | outer c:\\src\\a b.cpp:30", "main@1000 b.cpp:20@1010"},
      {0x102f, "main@1000 b.cpp:20@1010 | inner :50 | middle b.cpp:40 | outer c:\\src\\a b.cpp:30",
       "main@1000 b.cpp:20@1010"},
      {0x1060, "main@1000 b.cpp:20@1010 | second c:\\src\\a b.cpp:60", "main@1000 b.cpp:20@1010"},
      {0x1090, "main@1000", "main@1000"},
      {0x10ff, "main@1000", "main@1000"},
      {0x1100, "between@1100", "nothing"},
      {0x1200, "no_lines@1200", "no_lines@1200"},
      {0x1210, "nothing", "nothing"},  // the function hides the publics below it
      {0x2000, "last@2000 -:-3@2000", "last@2000 -:-3@2000"},
      {0x2020, "nothing", "nothing"},  // a public at the function's own address is hidden too
      {0x3000, "above@3000", "nothing"},
      // Functions and lines see the low 32 bits, publics all of them.
      {0x100001000, "main@1000 c:\\src\\a b.cpp:10@1000", "main@1000 c:\\src\\a b.cpp:10@1000"},
      {0x100001010, "main@1000 b.cpp:20@1010", "main@1000 b.cpp:20@1010"},
      {0x100000800, "above@3000", "nothing"},
  };
  Symbols version_3(rich_symb_model(3)), version_2(rich_symb_model(2)),
      version_1(rich_symb_model(1));
  for (const auto& c : kCases) {
    EXPECT_EQ(described(version_3.lookup(c.address)), c.version_3) << c.address;
    EXPECT_EQ(described(version_2.lookup(c.address)), c.version_2) << c.address;
    EXPECT_EQ(described(version_1.lookup(c.address)), c.version_2) << c.address;
  }
}

// The sites of a function may stand in any order and cut one another: the answer is that of a tree
// into which they are stored one by one.
TEST(SymbLookupTest, StacksSitesAsATreeOfThemWould) {
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
    Symbols symbols(model);
    for (uint64_t address = 0; address < 64; ++address) {
      std::vector<int> expected, found;
      tree.RetrieveRangeStack(address, expected);
      const StackFrame frame = symbols.lookup(address);
      for (auto site = frame.inlines.rbegin(); site != frame.inlines.rend(); ++site) {
        found.push_back(site->source_line);
      }
      EXPECT_EQ(found, expected) << "round " << round << " address " << address;
    }
  }
}

// In version 3 the fallback takes records of 48 bytes to be 32 bytes long. Of two functions the
// second one's place is then taken by the first one's `inlines`, whose offset passes for an
// address.
TEST(SymbLookupTest, TakesParametersAtTheStrideOfOlderVersions) {
  SymbModel model;
  model.functions = {{0x10, 8, 4, "low", {}, {}}, {0x10000, 8, 8, "high", {}, {}}};
  EXPECT_EQ(described(Symbols(model).frame_info(0x12).get()), "-1 1 0 0 4 0 0 0 0 ");
  EXPECT_EQ(described(Symbols(model).frame_info(0x10002).get()), "nothing");
  model.version = 2;
  EXPECT_EQ(described(Symbols(model).frame_info(0x10002).get()), "-1 1 0 0 8 0 0 0 0 ");
}

std::string image_of(const std::string& text) {
  char* block = nullptr;
  size_t size = 0;
  EXPECT_TRUE(symb_write(text.c_str(), &block, &size));
  const std::unique_ptr<char[]> owner(block);
  return std::string(block, size);
}

// Compares the lookups of a text and of its image; returns how many answers had inline frames. The
// text module has no inline frames, and its parameter sizes without frame info differ by design.
int expect_agreement(const std::string& content, const std::vector<uint64_t>& addresses) {
  Symbols text(content), image(image_of(content));
  int with_inlines = 0;
  for (const uint64_t address : addresses) {
    const StackFrame frame = image.lookup(address);
    with_inlines += !frame.inlines.empty();
    EXPECT_EQ(described(frame, false), described(text.lookup(address))) << address;
    EXPECT_EQ(described(image.cfi(address).get()), described(text.cfi(address).get())) << address;
    const auto info = text.frame_info(address);
    if (info != nullptr && info->type_ != WindowsFrameInfo::STACK_INFO_UNKNOWN) {
      EXPECT_EQ(described(image.frame_info(address).get()), described(info.get())) << address;
    }
    if (testing::Test::HasFailure()) break;
  }
  return with_inlines;
}

TEST(SymbLookupTest, AgreesWithTheTextModule) {
  SymbolTextShape shape;
  shape.functions = 5000;
  shape.inline_depth = 3;
  std::mt19937_64 random(11);
  std::vector<uint64_t> addresses(100000);
  for (uint64_t& address : addresses) address = random() % (symbol_text_end(shape) + 0x100);
  EXPECT_GT(expect_agreement(symbol_text(shape), addresses), 10000);
}

TEST(SymbLookupTest, AgreesWithTheTextModuleOnRealFiles) {
  std::vector<uint64_t> addresses(0x6000);
  std::iota(addresses.begin(), addresses.end(), 0);
  int with_inlines = 0;
  for (const char* name : {"calls32", "calls64", "engine32", "engine64"}) {
    SCOPED_TRACE(name);
    with_inlines +=
        expect_agreement(read_file(std::string(SYMFORGE_FIXTURES "/") + name + ".sym"), addresses);
  }
  EXPECT_GT(with_inlines, 0);
}

TEST(SymbLookupTest, SeveralThreadsShareAReadOnlyBlock) {
  SymbolTextShape shape;
  shape.inline_depth = 2;
  Symbols symbols(image_of(symbol_text(shape)));
  std::atomic<int> wrong = 0;
  const auto work = [&](unsigned seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < 5000; ++i) {
      const uint64_t address = random() % symbol_text_end(shape);
      const StackFrame frame = symbols.lookup(address);
      const auto info = symbols.cfi(address);
      if ((frame.source_line != -1 || !frame.inlines.empty()) && info == nullptr) ++wrong;
      symbols.frame_info(address);
    }
  };
  std::vector<std::thread> threads;
  for (unsigned seed = 0; seed < 4; ++seed) threads.emplace_back(work, seed);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
