#include "common/text_buffer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(TextBufferTest, WritesNumbersInTheFormsOfTheTextFormat) {
  TextBuffer text;
  LineWriter(text, 100)
      .hex(0xABCDEF01u)
      .chr(' ')
      .dec(4294967295u)
      .chr(' ')
      .dec_signed(-12)
      .str("\n");
  LineWriter(text, 20).hex(UINT64_MAX);
  EXPECT_EQ(text.view(), "abcdef01 4294967295 -12\nffffffffffffffff");
}

TEST(TextBufferTest, KeepsTheTextWhileItGrowsAndMoves) {
  TextBuffer text;
  std::string expected;
  for (int i = 0; i < 100000; ++i) {
    LineWriter(text, 30).dec(static_cast<uint64_t>(i)).chr('\n');
    expected += std::to_string(i) + '\n';
  }
  TextBuffer moved = std::move(text);
  EXPECT_EQ(moved.view(), expected);
  EXPECT_STREQ(moved.c_str(), expected.c_str());
}

}  // namespace
