// Conversion from text to SYMB images, and round trips in both directions.

#include <gtest/gtest.h>

#include <sstream>

#include "builders/bytes.h"
#include "builders/symb_builder.h"
#include "tests/support/data.h"
#include "tests/support/symb_images.h"

using namespace builders;
using test_support::is_valid;
using test_support::test_cases;
using test_support::test_data;
using test_support::TestCase;

namespace {

constexpr const char* kNone = "(none)";

std::string image_of(const std::string& text) {
  return test_support::image_of(text).value_or(kNone);
}
std::string text_of(const std::string& image) {
  return test_support::text_of(image).value_or(kNone);
}

// A text with unsorted lines, some of which are dropped, compared with an image that a builder
// creates independently from the same data.
TEST(SymbWriterTest, WritesEveryKindOfRecord) {
  const std::string image = image_of(test_data("rich_shuffled.sym"));
  EXPECT_EQ(hex_dump(image), hex_dump(rich_symb_model().bytes()));
  EXPECT_TRUE(is_valid(image));
}

// Long common prefixes, strings that begin others, bytes from 0x80, and each name more than once.
TEST(SymbWriterTest, StoresEachOfManyStringsOnceAndSorted) {
  SymbModel model;
  std::ostringstream text;
  text << "MODULE windows x86_64 0123 a.pdb\n" << std::hex;
  for (uint32_t i = 0; i < 4000; ++i) {
    const uint32_t number = i % 1500;
    const std::string name = std::string(1 + number % 40, 'p') + (number % 3 == 0 ? "\xC3" : "") +
                             (number < 40 ? "" : std::to_string(number / 40));
    if (i < 2000) {
      model.functions.push_back({i, 1, 0, name, {}, {}});
      text << "FUNC " << i << " 1 0 " << name << '\n';
    } else {
      model.publics.push_back({i, 0, name});
      text << "PUBLIC " << i << " 0 " << name << '\n';
    }
  }
  EXPECT_EQ(hex_dump(image_of(text.str())), hex_dump(model.bytes()));
}

TEST(SymbWriterTest, TakesTheIdentityFromTheHeaderLines) {
  const auto expect_text = [](const std::string& text, const std::string& expected) {
    const std::string image = image_of(text);
    EXPECT_EQ(image == kNone ? image : text_of(image), expected) << text;
  };
  for (const TestCase& c : test_cases("identity_lines.txt", "SYMB")) {
    expect_text(c.input, c.expected);
  }
  const std::string module = "MODULE windows x86_64 0123 a.pdb\n";
  const std::string longest = "MODULE windows x86_64 0123 " + std::string(4068, 'x');  // 4095
  expect_text(longest + "\n", longest + "\n");
  expect_text(longest + "x\n" + module, module);
}

TEST(SymbWriterTest, RoundTripMakesTheListedChangesOnly) {
  const std::string changed = test_data("round_trip.back.sym");
  EXPECT_EQ(text_of(image_of(test_data("round_trip.sym"))), changed);
  EXPECT_EQ(text_of(image_of(changed)), changed) << "a second trip";
}

TEST(SymbWriterTest, SurvivesDeepNesting) {
  std::string text = "MODULE w x 0 a\nFUNC 0 100000 0 f\n0 1 1 1\n";
  constexpr uint32_t kDepth = 100000;
  for (uint32_t i = 0; i < kDepth; ++i) {
    std::ostringstream line;
    line << std::hex << "STACK WIN 4 " << i << ' ' << 2 * kDepth - 2 * i << " 0 0 0 0 0 0 0 0\n"
         << "I " << i << ' ' << 2 * kDepth - 2 * i << " 1 1 0 n\n";
    text += line.str();
  }
  const std::string image = image_of(text);
  EXPECT_TRUE(is_valid(image));
  EXPECT_EQ(image_of(text_of(image)), image);
}

}  // namespace
