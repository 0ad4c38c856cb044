// The parsers of the lines of a text symbol file and of CFI rule sets, with the cases of
// tests/data/parsed_lines.txt; the quick parsers of common lines must agree with them.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "common/symbol_text.h"
#include "processor/cfi_frame_info.h"
#include "processor/symbol_parse_helper.h"
#include "processor/windows_frame_info.h"
#include "tests/support/data.h"

namespace google_breakpad {
namespace {

using symforge_internal::FileFields;
using symforge_internal::FunctionFields;
using symforge_internal::InlineFields;
using symforge_internal::LineFields;
using symforge_internal::PublicFields;
using symforge_internal::StackCFIFields;
using symforge_internal::StackWinFields;

using Helper = SymbolParseHelper;
using test_support::test_cases;

// Numbers in hexadecimal; those that are decimal in the format are passed as text.
template <typename... Fields>
std::string joined(bool accepted, const Fields&... fields) {
  if (!accepted) return "refused";
  std::ostringstream out;
  out << std::hex;
  ((out << '|' << fields), ...);
  return out.str().substr(1);
}

std::string file(char* line) {
  FileFields f{};
  char* name = nullptr;
  const bool good = Helper::ParseFile(line, &f.index, &name);
  return joined(good, std::to_string(f.index), name);
}

std::string function(char* line) {
  FunctionFields f{};
  uint32_t section = 0;
  char* name = nullptr;
  const bool good = Helper::ParseFunction(line, &f.is_multiple, &section, &f.address, &f.size,
                                          &f.stack_param_size, &name);
  return joined(good, f.is_multiple, section, f.address, f.size, f.stack_param_size, name);
}

std::string public_symbol(char* line) {
  PublicFields f{};
  char* name = nullptr;
  const bool good =
      Helper::ParsePublicSymbol(line, &f.is_multiple, &f.address, &f.stack_param_size, &name);
  return joined(good, f.is_multiple, f.address, f.stack_param_size, name);
}

std::string line_record(char* line) {
  LineFields f{};
  const bool good = Helper::ParseLine(line, &f.address, &f.size, &f.line_number, &f.source_file);
  return joined(good, f.address, f.size, std::to_string(f.line_number),
                std::to_string(f.source_file));
}

std::string inline_site(char* line) {
  InlineFields f{};
  char* name = nullptr;
  const bool good = Helper::ParseInlineFunction(line, &f.address, &f.size, &f.line_number,
                                                &f.source_file, &f.caller, &name);
  return joined(good, f.address, f.size, std::to_string(f.line_number),
                std::to_string(f.source_file), f.caller, name);
}

std::string stack_win(char* line) {
  int type = 0;
  uint64_t rva = 0, size = 0;
  const std::unique_ptr<WindowsFrameInfo> f(
      WindowsFrameInfo::ParseFromString(line, type, rva, size));
  if (f == nullptr) return "refused";
  EXPECT_EQ(f->valid, WindowsFrameInfo::VALID_ALL);
  EXPECT_EQ(f->type_, type);
  return joined(true, type, rva, size, f->prolog_size, f->epilog_size, f->parameter_size,
                f->saved_register_size, f->local_size, f->max_stack_size, f->allocates_base_pointer,
                f->program_string);
}

std::string rules(char* line) {
  CFIFrameInfo info;
  CFIFrameInfoParseHandler handler(&info);
  std::string text = CFIRuleParser(&handler).Parse(line) ? "" : "refused: ";
  text += info.cfa_rule() + "|" + info.ra_rule();
  for (const auto& [name, rule] : info.register_rules()) text += "|" + name + "=" + rule;
  return text;
}

TEST(SymbolLineParsers, AcceptAndRefuse) {
  const std::map<std::string, std::string (*)(char*)> parsers = {
      {"FILE", file},        {"FUNC", function}, {"PUBLIC", public_symbol},
      {"line", line_record}, {"I", inline_site}, {"STACK WIN", stack_win},
      {"rules", rules}};
  for (const auto& [parser, line, fields] : test_cases("parsed_lines.txt")) {
    if (parser == "common" || parser == "joined") continue;
    std::string copy = line;
    EXPECT_EQ(parsers.at(parser)(copy.data()), fields) << parser << ": \"" << line << "\"";
  }
}

bool operator==(const StackWinFields& a, const StackWinFields& b) {
  const auto members = [](const StackWinFields& f) {
    return std::tie(f.type, f.rva, f.code_size, f.prolog_size, f.epilog_size, f.parameter_size,
                    f.saved_register_size, f.local_size, f.max_stack_size, f.has_program,
                    f.allocates_base_pointer, f.program_string);
  };
  return members(a) == members(b);
}

template <typename Fields>
bool quick(const std::string& line, Fields* fields) {
  return quick_parse(line.c_str(), line.c_str() + line.size(), fields);
}
bool quick_record(const std::string& text, size_t size, LineFields* fields) {
  const char* line_end = nullptr;
  return quick_parse(text.c_str(), text.c_str() + text.size(), &line_end, fields) &&
         line_end == text.c_str() + size;
}
// A line record is read in another way at the end of the text.
bool quick(const std::string& line, LineFields* fields) {
  LineFields at_end{};
  const bool is_quick = quick_record(line, line.size(), &at_end);
  EXPECT_EQ(quick_record(line + "\n" + std::string(40, '1'), line.size(), fields), is_quick)
      << line;
  EXPECT_TRUE(!is_quick || at_end == *fields) << line;
  return is_quick;
}

template <typename Fields>
bool exact(std::string& line, Fields* fields) {
  return parse(line.data(), line.data() + line.size(), fields);
}
template <typename Fields>
bool exact_stack(std::string& line, const char* platform, Fields* fields) {
  char* word = nullptr;
  char* rest = nullptr;
  char* const end = line.data() + line.size();
  symforge_internal::split_stack_line(line.data(), end, &word, &rest);
  return strcmp(word, platform) == 0 && parse(rest, end, fields);
}
bool exact(std::string& line, StackWinFields* fields) { return exact_stack(line, "WIN", fields); }
bool exact(std::string& line, StackCFIFields* fields) { return exact_stack(line, "CFI", fields); }

// Returns 1 if the quick parser accepted the line; the exact one must then return the same fields.
template <typename Fields>
int compare(const std::string& line) {
  Fields quick_fields{}, exact_fields{};
  if (!quick(line, &quick_fields)) return 0;
  std::string copy = line;
  EXPECT_TRUE(exact(copy, &exact_fields)) << line;
  EXPECT_TRUE(quick_fields == exact_fields) << line;
  return 1;
}

int compare_readers(const std::string& line) {
  if (line.starts_with("FILE ")) return compare<FileFields>(line);
  if (line.starts_with("FUNC ")) return compare<FunctionFields>(line);
  if (line.starts_with("PUBLIC ")) return compare<PublicFields>(line);
  if (line.starts_with("I ")) return compare<InlineFields>(line);
  if (line.starts_with("STACK ")) {
    return compare<StackWinFields>(line) + compare<StackCFIFields>(line);
  }
  return compare<LineFields>(line);
}

// If a quick parser accepts a line, the exact one returns the same: for the table, for the common
// lines, and for lines with a few changed bytes, most of which the quick one rejects.
TEST(QuickReaders, AgreeWithTheExactOnes) {
  std::vector<std::string> lines;
  for (const auto& c : test_cases("parsed_lines.txt")) {
    if (c.section != "rules" && c.section != "joined")
      lines.push_back(c.input.substr(0, c.input.find_first_of("\r\n")));
    if (c.expected == "quick") {
      EXPECT_EQ(compare_readers(c.input), 1) << c.input;
    }
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
      const size_t added = random() % 4 == 0 ? random() % 20 : random() % 2;
      line.replace(at, random() % 3, added, kBytes[random() % kBytes.size()]);
      if (random() % 8 == 0) line.resize(at);
    }
    taken += compare_readers(line);
  }
  EXPECT_GT(taken, 20000);
}

TEST(CfiRules, ChangesAtTheStartJoin) {
  for (const auto& c : test_cases("parsed_lines.txt", "joined")) {
    const size_t plus = c.input.find(" & ");
    EXPECT_EQ(symforge_internal::join_cfi_rules(c.input.substr(0, plus), c.input.substr(plus + 3)),
              c.expected);
  }
}

}  // namespace
}  // namespace google_breakpad
