// From text to SYMB images, and round trips in both directions.

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "builders/bytes.h"
#include "builders/symb_builder.h"
#include "builders/symbol_text.h"
#include "common/symb.h"
#include "common/text_buffer.h"

using namespace builders;

namespace {

constexpr const char* kNone = "(none)";

std::string image_of(const std::string& text) {
  char* block = nullptr;
  size_t size = 0;
  if (!symb_write(text.c_str(), &block, &size)) {
    EXPECT_EQ(block, nullptr);
    return kNone;
  }
  const std::unique_ptr<char[]> owner(block);
  return std::string(block, size);
}

std::string text_of(std::string image) {
  TextBuffer text;
  if (!symb_read(image.data(), image.size(), text)) return kNone;
  return std::string(text.view());
}

bool valid(const std::string& image) {
  return symb_validate(reinterpret_cast<uint64_t>(image.data()), image.size());
}

// The image is compared with one that a builder lays out on its own from the same facts.
TEST(SymbWriterTest, LaysDownEveryKindOfRecord) {
  SymbModel model = rich_symb_model();
  model.files[0] = {0, "zero.cpp"};
  model.functions[2].lines[0].line = 3;
  const std::string image = image_of(
      "MODULE windows x86_64 0123 a.pdb\r\n"
      "INFO CODE_ID 5F1E2D3C21000 a.exe\n"
      "INFO UNKNOWN word\n"
      "INFO SECTION 2 virtaddr 1000 rawsize 400 characteristics 60000020\n"
      "INFO SECTION 1 virtaddr 123456789a rawsize 200\n"
      "FILE 7 b.cpp\n"
      "FILE 1 c:\\src\\a b.cpp\n"
      "FILE 7 late.cpp\n"
      "FILE 0 zero.cpp\n"
      "FUNC 3:2000 20 0 last\n"
      "2000 8 3 99\n"
      "FUNC m 1000 100 8 main\n"
      "1010 80 20 7\n"
      "1000 10 10 1\n"
      "I 1060 8 60 1 0 second\n"
      "I 1028 8 50 9 2 inner\n"
      "I 1010 40 30 1 0 outer\n"
      "I 1020 20 40 7 1 middle\n"
      "I 1020 20 41 7 1 repeated\n"
      "FUNC 1080 10 0 overlapping\n"
      "1080 8 1 1\n"
      "FUNC 1200 10 ffffffff no_lines\n"
      "I 1200 8 1 1 0 unseen\n"
      "PUBLIC 3000 ffffffff above\n"
      "PUBLIC 0 0 dropped\n"
      "PUBLIC m 2000 0 same\n"
      "PUBLIC 1100 0 between\n"
      "PUBLIC 800 4 below\n"
      "STACK WIN 0 1700 100 1 2 3 4 5 6 0 1\n"
      "STACK WIN 4 1030 10 1 2 3 4 5 6 0 0\n"
      "STACK WIN 4 1010 10 1 2 3 4 5 6 1 inner program\n"
      "STACK WIN 4 1200 100 1 2 3 4 5 6 0 0\n"
      "STACK WIN 4 1000 100 1 2 3 4 5 6 7 $T0 .raSearch =\n"
      "STACK WIN 3 1500 100 1 2 3 4 5 6 0 0\n"
      "STACK WIN 0 1080 80 1 2 3 4 5 6 0 1\n"
      "STACK CFI INIT 1100 10 .cfa: $rsp 16 +\n"
      "STACK CFI INIT 1000 100 .cfa: $rsp 8 + .ra: .cfa 8 - ^\n"
      "STACK CFI 1110 dropped: 2\n"
      "STACK CFI 1100 .cfa: $rsp 48 +\n"
      "STACK CFI 1004 replaced: 1\n"
      "STACK CFI 1004 $rbx: 7\n"
      "STACK CFI 1000 .cfa: $rsp 32 +\n"
      "STACK CFI fff dropped: 1\n");
  EXPECT_EQ(hex_dump(image), hex_dump(model.bytes()));
  EXPECT_TRUE(valid(image));
}

// The first two code blocks of the format's description: a text, and the dump of its image.
TEST(SymbWriterTest, DescriptionShowsWhatIsWritten) {
  std::istringstream page(read_file(SYMB_FORMAT_PAGE));
  std::string parts[4], line;
  for (int part = 0; part < 4 && std::getline(page, line);) {
    if (line == "```") {
      ++part;
    } else {
      parts[part] += line + '\n';
    }
  }
  std::string shown;
  std::istringstream dump(parts[3]);
  for (bool repeated = false; std::getline(dump, line);) {
    if (line == "*") {
      repeated = true;
      continue;
    }
    const size_t offset = std::stoul(line.substr(0, 8), nullptr, 16);
    while (repeated && shown.size() < offset) shown += shown.substr(shown.size() - 16);
    repeated = false;
    ASSERT_EQ(shown.size(), offset);
    if (line.size() > 8) shown += from_hex(line.substr(8, 52));
  }
  EXPECT_EQ(hex_dump(shown), hex_dump(image_of(parts[1])));
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
       "MODULE windows x86_64 0123 a.pdb\r\n"},
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
  const std::string text =
      "MODULE windows x86 0123 with blank.pdb\n"
      "INFO OTHER x\n"
      "INFO SECTION 3 virtaddr 1000 rawsize 400\n"
      "FILE 2 second.cpp\n"
      "FILE 1 first.cpp\n"
      "FUNC m 1:1000 20 4 multiple\n"
      "1010 10 8 2\n"
      "1000 10 7 1\n"
      "I 1014 4 3 1 1 nested\n"
      "I 1010 8 2 1 0 around\n"
      "nonsense\n"
      "FUNC 1:1040 ABC 0 sites only\n"
      "I 1040 4 3 1 1 gone\n"
      "PUBLIC m 1030 0 public\n"
      "PUBLIC 0 0 at zero\n"
      "PUBLIC 1030 0 again\n"
      "STACK WIN 0 1000 20 10001 0 0 0 10000 0 0 F\n"
      "STACK WIN 4 1000 20 0 0 1FFFF 0 0 0 2 program\n"
      "STACK WIN 4 100001000 8 0 0 0 0 0 0 0 0\n"
      "STACK CFI 1000 gone: 1\n"
      "STACK CFI INIT 1004 10 .cfa: 1\n"
      "STACK CFI 100c later: 1\n"
      "STACK CFI 1008 first: 1\n"
      "STACK CFI 1008 second: 1\n";
  const std::string changed =
      "MODULE windows x86 0123 with\n"
      "INFO SECTION 0 virtaddr 1000 rawsize 400\n"
      "FILE 1 first.cpp\n"
      "FILE 2 second.cpp\n"
      "FUNC 1000 20 4 multiple\n"
      "1000 10 7 1\n"
      "1010 10 8 2\n"
      "I 1010 8 2 1 0 around\n"
      "I 1014 4 3 1 1 nested\n"
      "PUBLIC 1030 0 public\n"
      "FUNC 1040 abc 0 sites only\n"
      "STACK WIN 4 1000 20 0 0 ffff 0 0 0 1 program\n"
      "STACK WIN 4 1000 8 0 0 0 0 0 0 0 0\n"
      "STACK WIN 0 1000 20 1 0 0 0 10000 0 0 1\n"
      "STACK CFI INIT 1004 10 .cfa: 1\n"
      "STACK CFI 1008 second: 1\n"
      "STACK CFI 100c later: 1\n";
  EXPECT_EQ(text_of(image_of(text)), changed);
  EXPECT_EQ(text_of(image_of(changed)), changed.substr(0, changed.find("STACK WIN 4 1000 8")) +
                                            "STACK WIN 4 1000 8 0 0 0 0 0 0 0 0\n" +
                                            changed.substr(changed.find("STACK WIN 0")));
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
  EXPECT_TRUE(valid(image));
  EXPECT_EQ(image_of(text_of(image)), image);
}

}  // namespace
