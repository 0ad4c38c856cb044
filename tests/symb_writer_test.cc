// From text to SYMB images, and round trips in both directions.

#include <gtest/gtest.h>

#include <sstream>

#include "builders/bytes.h"
#include "builders/symb_builder.h"
#include "tests/support/data.h"
#include "tests/support/symb_images.h"

using namespace builders;
using test_support::is_valid;
using test_support::test_data;

namespace {

constexpr const char* kNone = "(none)";

std::string image_of(const std::string& text) {
  return test_support::image_of(text).value_or(kNone);
}
std::string text_of(const std::string& image) {
  return test_support::text_of(image).value_or(kNone);
}

// A text with its lines in no order, and some that are dropped, against an image that a builder
// lays out on its own from the same facts.
TEST(SymbWriterTest, LaysDownEveryKindOfRecord) {
  const std::string image = image_of(test_data("rich_shuffled.sym"));
  EXPECT_EQ(hex_dump(image), hex_dump(rich_symb_model().bytes()));
  EXPECT_TRUE(is_valid(image));
}

TEST(SymbWriterTest, TakesTheIdentityFromTheHeaderLines) {
  const std::string module = "MODULE windows x86_64 0123 a.pdb\n";
  const std::string longest = "MODULE windows x86_64 0123 " + std::string(4068, 'x');  // 4095
  const struct {
    const char* what;
    std::string text;
    std::string expected;
  } kCases[] = {
      {"no line feed", "MODULE windows x86_64 0123 a.pdb", kNone},
      {"empty", "", kNone},
      {"no file", "MODULE windows x86_64 0123\n", kNone},
      {"not the first line", "FILE 1 a\n" + module, kNone},
      {"an empty line before it", "\n" + module, kNone},
      {"blanks", "MODULE  windows x86_64   0123 a b.pdb\n", "MODULE windows x86_64 0123 a\n"},
      {"one carriage return", "MODULE windows x86_64 0123 a.pdb\r\r\n",
       "MODULE windows x86_64 0123 a.pdb \n"},
      {"last MODULE line, as far as it goes", module + "MODULE linux arm\n",
       "MODULE linux arm 0123 a.pdb\n"},
      {"code identifier", module + "INFO CODE_ID 12 a.exe more\n",
       module + "INFO CODE_ID 12 a.exe\n"},
      {"code identifier alone", module + "INFO CODE_ID 12\n", module},
      {"behind a FUNC line", module + "FUNC 1 1 0 f\nINFO CODE_ID 12 a.exe\n",
       module + "FUNC 1 1 0 f\n"},
      {"behind an empty line", module + "\nINFO CODE_ID 12 a.exe\n", module},
      {"line of 4095 bytes", longest + "\n", longest + "\n"},
      {"line of 4096 bytes", longest + "x\n" + module, module},
      {"section numbers", module + "INFO SECTION zz virtaddr 1 rawsize 2\n", module},
      {"section address", module + "INFO SECTION 1 virtaddr 1g rawsize 2\n", module},
      {"section size", module + "INFO SECTION 1 virtaddr 1 rawsize ffffffffffffffff\n", module},
      {"section without size", module + "INFO SECTION 1 virtaddr 1 rawsize\n", module},
      {"section words", module + "INFO SECTION 9 any 0x10 word 20 more\n",
       module + "INFO SECTION 0 virtaddr 10 rawsize 20\n"},
  };
  for (const auto& c : kCases) {
    const std::string image = image_of(c.text);
    EXPECT_EQ(image == kNone ? image : text_of(image), c.expected) << c.what;
  }
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
