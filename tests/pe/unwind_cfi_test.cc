// Unwind data of x64 images as STACK CFI lines.

#include "symforge/src/pe/unwind_cfi.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "builders/pe_builder.h"
#include "tests/support/data.h"
#include "tests/support/memory_file.h"
#include "tests/support/unwind_cases.h"

namespace symforge_internal {
namespace {

using namespace builders;
using namespace test_support;  // NOLINT: short names of slots in long tables
using Slots = std::vector<uint16_t>;
using Unwind = builders::UnwindInfo;

std::string textOf(const std::string& image) {
  MMapWrapper mapping;
  EXPECT_TRUE(mapping.Map(MemoryFile(image).path()));
  TextBuffer out;
  printUnwindData(PeImage(mapping), out);
  return std::string(out.view());
}

// The lines of a function of 0x20 bytes at 0x1000.
std::string textOf(const Unwind& info) {
  return textOf(PeBuilder().function(0x1000, 0x1020, info).build());
}

std::string lines(const std::string& rules) {
  return "STACK CFI INIT 1000 20 .cfa: $rsp .ra: .cfa 8 - ^\nSTACK CFI 1000 .cfa: " + rules + "\n";
}

// Where the unwind data continue after an info without slots.
constexpr uint32_t kNext = PeBuilder::kUnwindRva + 4;

uint16_t op(uint8_t operation, uint8_t info) { return unwind_slot(0, operation, info); }

TEST(UnwindCfiTest, SumsUpTheOperations) {
  for (const TestCase& c : test_cases("x64_unwind.txt", "sums")) {
    EXPECT_EQ(cfi_rows(textOf(x64_unwind(c.input))), c.expected) << c.input;
  }
}

TEST(UnwindCfiTest, CountsFromTheFramePointer) {
  // 0x40 bytes of stack, 0x20 of them allocated before the register is set.
  const Slots slots = {op(kAllocSmall, 3), op(kSetFpreg, 0), op(kAllocSmall, 1), op(kPushNonvol, 5),
                       op(kPushNonvol, 3)};
  for (const uint8_t frame_register : {5, 13}) {
    EXPECT_EQ(textOf(Unwind{.frame_register = frame_register, .frame_offset = 1, .slots = slots}),
              lines("$rbp 24 + $rbp: .cfa 24 - ^ $rbx: .cfa 16 - ^"));
  }
}

TEST(UnwindCfiTest, AbortsOnARegisterPushedTwiceOrAFrameNeverSet) {
  EXPECT_DEATH(textOf(Unwind{.slots = {op(kPushNonvol, 3), op(kPushNonvol, 3)}}), "ok.second");
  EXPECT_DEATH(textOf(Unwind{.frame_register = 5}), "fp_offset != INT32_MAX");
  // Also when the second time is in a cyclic chain.
  const Unwind round{.flags = kUnwindChained,
                     .slots = {op(kPushNonvol, 3)},
                     .chained = {0, 0, PeBuilder::kUnwindRva}};
  EXPECT_DEATH(textOf(round), "ok.second");
}

TEST(UnwindCfiTest, AddsUpAChain) {
  PeBuilder pe;
  const uint32_t last = pe.unwind_info({.frame_register = 5, .slots = {op(kPushNonvol, 5)}});
  const uint32_t middle = pe.unwind_info({.flags = kUnwindChained,
                                          .slots = {op(kAllocSmall, 1), op(kAllocSmall, 1)},
                                          .chained = {0x2000, 0x3000, last}});
  const Unwind top{
      .flags = kUnwindChained, .slots = {op(kPushNonvol, 3)}, .chained = {0x2000, 0x3000, middle}};
  EXPECT_EQ(textOf(pe.function(0x1000, 0x1020, top).build()),
            lines("$rsp 56 + $rbp: $rsp 40 + ^ $rbx: $rsp 0 + ^"));
  // An invalid link ends the chain and nothing else.
  EXPECT_EQ(textOf(Unwind{.flags = kUnwindChained, .chained = {0, 0, 0x9000000}}),
            lines("$rsp 8 +"));
}

TEST(UnwindCfiTest, FollowsEntriesThatPointToEntries) {
  PeBuilder pe;
  const uint32_t info = pe.unwind_info({.slots = {op(kAllocSmall, 0)}});
  const uint32_t entry = pe.raw_unwind_info(Bytes().u32(1).u32(2).u32(info).str());
  const uint32_t further = pe.raw_unwind_info(Bytes().u32(1).u32(2).u32(entry | 1).str());
  pe.function_entry({0x0F00, 0x0F20, 0x9000000});  // invalid RVA: no lines for this function
  pe.function_entry({0x1000, 0x1020, further | 1});
  EXPECT_EQ(textOf(pe.build()), lines("$rsp 16 +"));
}

// The last section of the file contains the first bytes of an info with two slots.
TEST(UnwindCfiTest, ReadsWholeInfosAlone) {
  const std::string info = Unwind{.slots = {op(kAllocSmall, 0), op(kAllocSmall, 0)}}.bytes();
  ASSERT_EQ(info.size(), 8u);
  for (size_t size = 0; size <= info.size(); ++size) {
    PeBuilder pe;
    pe.section(".pdata", 0x4000, Bytes().u32(0x1000).u32(0x1020).u32(0x8000).str());
    pe.section(".xdata", 0x8000, info.substr(0, size)).directory(3, 0x4000, 12);
    EXPECT_EQ(textOf(pe.build()), size < info.size() ? "" : lines("$rsp 24 +")) << size;
  }
}

// Invalid or endless links: the message, and the lines before it.
TEST(UnwindCfiTest, StopsAtInvalidLinks) {
  const auto expect_lost = [](const char* what, const std::function<void(PeBuilder&)>& add) {
    PeBuilder pe;
    pe.function(0x1000, 0x1020, {});
    add(pe);
    pe.function(0x2000, 0x2020, {});
    testing::internal::CaptureStderr();
    EXPECT_EQ(textOf(pe.build()), lines("$rsp 8 +")) << what;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to find chained function\n") << what;
  };
  expect_lost("entry nowhere", [](PeBuilder& pe) { pe.function_entry({1, 2, 0x9000001}); });
  expect_lost("entry that is its own", [](PeBuilder& pe) {
    pe.raw_unwind_info(Bytes().u32(1).u32(2).u32(kNext | 1).str());
    pe.function_entry({1, 2, kNext | 1});
  });
  expect_lost("chain of two", [](PeBuilder& pe) {
    const Unwind there{.flags = kUnwindChained, .chained = {1, 2, kNext + 16}};
    EXPECT_EQ(pe.unwind_info(there), kNext);
    pe.function(1, 2, {.flags = kUnwindChained, .chained = {1, 2, kNext}});
  });
  Slots endless(254, op(kAllocSmall, 0));
  endless.push_back(op(kAllocLarge, 1));
  expect_lost("slots that wrap the counter",
              [&](PeBuilder& pe) { pe.function(1, 2, {.slots = endless}); });
}

}  // namespace
}  // namespace symforge_internal
