#include <gmock/gmock.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "processor/symbol_lines.h"
#include "processor/symbol_parse_helper.h"
#include "processor/tokenize.h"
#include "processor/windows_frame_info.h"

namespace google_breakpad {
namespace {

using Helper = SymbolParseHelper;

// Each parser's fields as one text, "refused" for a false result.
std::string file(char* line) {
  long index = 0;
  char* name = nullptr;
  if (!Helper::ParseFile(line, &index, &name)) return "refused";
  return std::to_string(index) + "|" + name;
}

std::string function(char* line) {
  bool multiple = false;
  uint32_t section = 9;
  uint64_t address = 0, size = 0;
  long parameters = 0;
  char* name = nullptr;
  if (!Helper::ParseFunction(line, &multiple, &section, &address, &size, &parameters, &name)) {
    return "refused";
  }
  std::ostringstream out;
  out << std::hex << (multiple ? "m " : "") << section << ":" << address << " " << size << " "
      << parameters << "|" << name;
  return out.str();
}

std::string public_symbol(char* line) {
  bool multiple = false;
  uint64_t address = 0;
  long parameters = 0;
  char* name = nullptr;
  if (!Helper::ParsePublicSymbol(line, &multiple, &address, &parameters, &name)) return "refused";
  std::ostringstream out;
  out << std::hex << (multiple ? "m " : "") << address << " " << parameters << "|" << name;
  return out.str();
}

std::string line_record(char* line) {
  uint64_t address = 0, size = 0;
  long number = 0, source_file = 0;
  if (!Helper::ParseLine(line, &address, &size, &number, &source_file)) return "refused";
  std::ostringstream out;
  out << std::hex << address << " " << size << std::dec << " " << number << " " << source_file;
  return out.str();
}

std::string inline_site(char* line) {
  uint64_t address = 0, size = 0;
  long number = 0, source_file = 0;
  uint32_t caller = 0;
  char* name = nullptr;
  if (!Helper::ParseInlineFunction(line, &address, &size, &number, &source_file, &caller, &name)) {
    return "refused";
  }
  std::ostringstream out;
  out << std::hex << address << " " << size << std::dec << " " << number << " " << source_file
      << std::hex << " " << caller << "|" << name;
  return out.str();
}

struct Case {
  std::string (*parse)(char*);
  const char* line;
  const char* fields;
};

const Case kCases[] = {
    {file, "FILE 3 C:\\Program Files\\a.c", "3|C:\\Program Files\\a.c"},
    {file, "FILE 0 a.c\r", "0|a.c"},
    {file, "FILE  3  a.c", "3| a.c"},
    {file, "FILE 4294967297 a", "4294967297|a"},
    {file, "FILE 3", "refused"},
    {file, "FILE 3 ", "refused"},
    {file, "FILE ", "refused"},
    {file, "FILE -1 a.c", "refused"},
    {file, "FILE 3x a.c", "refused"},
    {file, "FILE 9223372036854775807 a.c", "refused"},
    {file, "FILE 9223372036854775806 a.c", "9223372036854775806|a.c"},
    {function, "FUNC 1000 10 0 main", "0:1000 10 0|main"},
    {function, "FUNC 1:1000 10 0 main", "1:1000 10 0|main"},
    {function, "FUNC m 1:1000 10 4 main", "m 1:1000 10 4|main"},
    {function, "FUNC m 1000 10 0", "m 0:1000 10 0|<omitted>"},
    {function, "FUNC 1000 10 0", "0:1000 10 0|<omitted>"},
    {function, "FUNC 1000 10 0 ", "0:1000 10 0|<omitted>"},
    {function, "FUNC 1000 10 0 operator new(unsigned int)",
     "0:1000 10 0|operator new(unsigned int)"},
    {function, "FUNC 1000 10 0  main", "0:1000 10 0| main"},
    {function, "FUNC 1000 10 0 main\r\n", "0:1000 10 0|main"},
    {function, "FUNC 0x1000 0X10 0x0 f", "0:1000 10 0|f"},
    {function, "FUNC 0x 10 0 f", "refused"},
    {function, "FUNC 1234567890:1000 10 0 f", "34567890:1000 10 0|f"},
    {function, "FUNC 1:-2 10 0 f", "1:fffffffffffffffe 10 0|f"},
    {function, "FUNC ffffffffffffffff:1 10 0 f", "refused"},
    {function, "FUNC 1:ffffffffffffffff 10 0 f", "refused"},
    {function, "FUNC 1:2:3 10 0 f", "refused"},
    {function, "FUNC 11111111111111111 10 0 f", "refused"},
    {function, "FUNC 1000 ffffffffffffffff 0 f", "refused"},
    {function, "FUNC fffffffffffffffe 10 7ffffffffffffffe f",
     "0:fffffffffffffffe 10 7ffffffffffffffe|f"},
    {function, "FUNC 1000 10 7fffffffffffffff f", "refused"},
    {function, "FUNC 1000 10 -1 f", "refused"},
    {function, "FUNC 1000 10x 0 f", "refused"},
    {function, "FUNC 1000 10", "refused"},
    {function, "FUNC 1000", "refused"},
    {function, "FUNC m m 10 0 f", "refused"},
    {public_symbol, "PUBLIC 1000 0 main", "1000 0|main"},
    {public_symbol, "PUBLIC m 1000 c a b", "m 1000 c|a b"},
    {public_symbol, "PUBLIC 1000 0", "1000 0|<omitted>"},
    {public_symbol, "PUBLIC 1000", "refused"},
    {public_symbol, "PUBLIC 1:1000 0 f", "refused"},
    {line_record, "1000 10 5 2", "1000 10 5 2"},
    {line_record, "  1000   10 5  2", "1000 10 5 2"},
    {line_record, "1000 10 0 2\r", "1000 10 0 2"},
    {line_record, "1000 10 5 2 more words", "1000 10 5 2"},
    {line_record, "1000 10 5 2more", "refused"},
    {line_record, "1000 10 -5 2", "refused"},
    {line_record, "1000 10 5 -2", "refused"},
    {line_record, "1000 10 5", "refused"},
    {line_record, "1000 10 9223372036854775807 2", "refused"},
    {line_record, "1000 10 9223372036854775806 99999999999",
     "1000 10 9223372036854775806 99999999999"},
    {line_record, "zz 10 5 2", "refused"},
    {inline_site, "I 1004 8 11 3 0 f(int)", "1004 8 11 3 0|f(int)"},
    {inline_site, "Ix 1004 8 11 3 0 f", "1004 8 11 3 0|f"},
    {inline_site, "I  1004  8 11 3 0  f\r", "1004 8 11 3 0| f\r"},
    {inline_site, "I 1004 8 11 3 0", "1004 8 11 3 0|"},
    {inline_site, "I zz 8x -1 -2 1ffffffff f", "0 8 -1 -2 ffffffff|f"},
    {inline_site, "I ffffffffffffffff 8 1 1 1 f", "ffffffffffffffff 8 1 1 1|f"},
    {inline_site, "I 1ffffffffffffffff 8 1 1 1 f", "refused"},
    {inline_site, "I 1004 8 18446744073709551616 3 0 f", "refused"},
    {inline_site, "I 1004 8 11 3", "refused"},
    {inline_site, "x 1004 8 11 3 0 f", "refused"},
    {inline_site, "", "refused"},
};

TEST(SymbolParseHelper, AcceptsAndRefuses) {
  for (const Case& c : kCases) {
    std::string line = c.line;
    EXPECT_EQ(c.parse(line.data()), c.fields) << "\"" << c.line << "\"";
  }
}

TEST(WindowsFrameInfo, ParsesAndRefuses) {
  const struct {
    const char* text;
    const char* fields;
  } kLines[] = {
      {"4 1000 20 1 2 3 4 5 6 1 $eip = $esp", "4 1000 20 1 2 3 4 5 6 0 '$eip = $esp'"},
      {"0 1000 20 1 2 3 4 5 6 0 1", "0 1000 20 1 2 3 4 5 6 1 ''"},
      {"0 1000 20 1 2 3 4 5 6 0 0", "0 1000 20 1 2 3 4 5 6 0 ''"},
      {"0 zz 20x 1ffffffff 2 3 4 5 6 x 1x", "0 0 20 ffffffff 2 3 4 5 6 1 ''"},
      {"100000003 1 2 1 2 3 4 5 6 0 0", "3 1 2 1 2 3 4 5 6 0 ''"},
      {"0 1000 20 1 2 3 4 5 6 1", "null"},
      {"5 1000 20 1 2 3 4 5 6 0 0", "null"},
      {"-1 1000 20 1 2 3 4 5 6 0 0", "null"},
      {"", "null"},
  };
  for (const auto& c : kLines) {
    int type = 0;
    uint64_t rva = 0, size = 0;
    const std::unique_ptr<WindowsFrameInfo> info(
        WindowsFrameInfo::ParseFromString(c.text, type, rva, size));
    std::ostringstream out;
    if (info) {
      EXPECT_EQ(info->valid, WindowsFrameInfo::VALID_ALL);
      EXPECT_EQ(info->type_, type);
      out << std::hex << type << " " << rva << " " << size << " " << info->prolog_size << " "
          << info->epilog_size << " " << info->parameter_size << " " << info->saved_register_size
          << " " << info->local_size << " " << info->max_stack_size << " "
          << info->allocates_base_pointer << " '" << info->program_string << "'";
    } else {
      out << "null";
    }
    EXPECT_EQ(out.str(), c.fields) << c.text;
  }
}

template <typename Fields>
bool read_stack(char* line, char* end, const char* platform, bool (*read)(char*, char*, Fields*),
                Fields* fields) {
  char* word = nullptr;
  char* rest = nullptr;
  SplitStackLine(line, end, &word, &rest);
  return strcmp(word, platform) == 0 && read(rest, end, fields);
}
bool read_win(char* line, char* end, StackWinFields* fields) {
  return read_stack(line, end, "WIN", ReadStackWin, fields);
}
bool read_cfi(char* line, char* end, StackCFIFields* fields) {
  return read_stack(line, end, "CFI", ReadStackCFI, fields);
}
bool quick_line(const char* line, const char* end, LineFields* fields) {
  const char* line_end = nullptr;
  return QuickLine(line, &line_end, fields) && line_end == end;
}

// 1 if the quick reader took the line; the exact one must then give the same fields.
template <typename Fields>
int compare(const std::string& line, bool (*quick)(const char*, const char*, Fields*),
            bool (*read)(char*, char*, Fields*)) {
  Fields quick_fields{}, exact_fields{};
  if (!quick(line.c_str(), line.c_str() + line.size(), &quick_fields)) return 0;
  std::string copy = line;
  EXPECT_TRUE(read(copy.data(), copy.data() + copy.size(), &exact_fields)) << line;
  EXPECT_TRUE(quick_fields == exact_fields) << line;
  return 1;
}

int compare_readers(const std::string& line) {
  if (line.starts_with("FILE ")) return compare(line, QuickFile, ReadFile);
  if (line.starts_with("FUNC ")) return compare(line, QuickFunction, ReadFunction);
  if (line.starts_with("PUBLIC ")) return compare(line, QuickPublic, ReadPublic);
  if (line.starts_with("I ")) return compare(line, QuickInline, ReadInline);
  if (line.starts_with("STACK ")) {
    return compare(line, QuickStackWin, read_win) + compare(line, QuickStackCFI, read_cfi);
  }
  return compare(line, quick_line, ReadLine);
}

// What a quick reader takes, the exact one reads alike: over the table, over the common lines, and
// over lines with a few bytes changed, where mostly the quick one has to decline.
TEST(QuickReaders, AgreeWithTheExactOnes) {
  const std::string kCommon[] = {
      "FILE 12 /src/a b.cc",
      "FUNC 1000 10 0 main",
      "FUNC m 2:1000 1f 4 f(int, char)",
      "PUBLIC 1000 0 _main",
      "PUBLIC m 1f000 8 _f@8",
      "1000 10 5 2",
      "I 1004 8 11 3 0 f(int)",
      "STACK WIN 4 1000 20 1 2 3 4 5 6 1 $eip 4 + ^ =",
      "STACK WIN 0 1000 20 1 2 3 4 5 6 0 1",
      "STACK CFI INIT 1000 20 .cfa: $rsp 8 + .ra: .cfa 8 - ^",
      "STACK CFI 1004 .cfa: $rsp 16 +",
  };
  std::vector<std::string> lines(std::begin(kCommon), std::end(kCommon));
  for (const std::string& line : kCommon) EXPECT_EQ(compare_readers(line), 1) << line;
  for (const Case& c : kCases) {
    const std::string line = c.line;
    lines.push_back(line.substr(0, line.find_first_of("\r\n")));
  }
  std::mt19937 random(3);
  constexpr std::string_view kBytes =
      "0123456789abcdefFxX:mI -+ \t.\x80"
      "9999fffff    ";
  int taken = 0;
  for (int round = 0; round < 200000; ++round) {
    std::string line = lines[random() % lines.size()];
    for (int change = random() % 4; change > 0 && !line.empty(); --change) {
      const size_t at = random() % line.size();
      const char byte = kBytes[random() % kBytes.size()];
      switch (random() % 4) {
        case 0:
          line[at] = byte;
          break;
        case 1:
          line.insert(at, 1 + random() % 20, byte);
          break;
        case 2:
          line.erase(at, 1 + random() % 2);
          break;
        default:
          line.resize(at);
      }
    }
    taken += compare_readers(line);
  }
  EXPECT_GT(taken, 20000);
}

}  // namespace
}  // namespace google_breakpad
