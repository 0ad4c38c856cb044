#include "base/text_buffer.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>

#include <string>

using symforge_internal::LineWriter;
using symforge_internal::put_dec;
using symforge_internal::put_hex_pair;
using symforge_internal::TextBuffer;

namespace {

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

// Every number of digits, with spare bytes and with none.
TEST(LineWriterTest, WritesHexadecimalOfEveryWidth) {
  for (uint64_t number = 1, digits = 1; digits <= 16;
       number = number * 16 + digits % 16, ++digits) {
    char expected[32];
    std::snprintf(expected, sizeof(expected), "%" PRIx64, number);
    for (const size_t room : {size_t{digits}, size_t{40}}) {
      TextBuffer text;
      LineWriter(text, room).hex(number);
      EXPECT_EQ(text.view(), expected);
    }
  }
  TextBuffer text;
  LineWriter(text, 60).hex(0).chr(' ').dec(4294967295u).chr(' ').dec_signed(-12).str("\n");
  EXPECT_EQ(text.view(), "0 4294967295 -12\n");
}

// Numbers of one to ten digits, with zeros inside of them.
TEST(LineWriterTest, WritesThirtyTwoBitNumbersWithoutALoop) {
  char text[32];
  const auto pair = [&text](uint32_t first, uint32_t second) {
    return std::string(text, put_hex_pair(text, first, second));
  };
  for (uint64_t number = 0; number <= UINT32_MAX; number = number * 9 + number / 7 + 1) {
    for (const auto value : {static_cast<uint32_t>(number), static_cast<uint32_t>(number) & ~7u}) {
      EXPECT_EQ(std::string(text, put_dec(text, value)), std::to_string(value));
      char expected[32];
      std::snprintf(expected, sizeof(expected), "%x %x ", value, ~value);
      EXPECT_EQ(pair(value, ~value), expected);
    }
  }
  for (const uint32_t value : {9999u, 10000u, 10001u, 99999999u, 100000000u, 4294967295u}) {
    EXPECT_EQ(std::string(text, put_dec(text, value)), std::to_string(value));
  }
}

}  // namespace
