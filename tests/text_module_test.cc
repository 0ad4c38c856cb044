#include <gmock/gmock.h>

#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "processor/basic_source_line_resolver_module.h"
#include "processor/text_module_loader.h"
#include "tests/support/code_module.h"

namespace google_breakpad {
namespace {

using Module = BasicSourceLineResolver::Module;
using Readers = TextModuleLoader::Readers;
using testing::HasSubstr;

struct Loaded {
  std::unique_ptr<Module> module = std::make_unique<Module>("m");
  std::string log;
};

// Loads a text and the NUL behind it.
Loaded load(std::string text, Readers readers = Readers::kQuickAndExact) {
  Loaded loaded;
  testing::internal::CaptureStderr();
  TextModuleLoader(loaded.module.get(), readers).Load(text.data(), text.size() + 1);
  loaded.log = testing::internal::GetCapturedStderr();
  return loaded;
}

void dump_win(const ContainedRange<MemAddr, StackWinRecord>& range, int depth,
              std::ostringstream& out) {
  if (range.Map() == nullptr || depth > 100) return;
  for (const auto& [high, inner] : *range.Map()) {
    const StackWinRecord& r = inner->Entry();
    out << std::string(depth, ' ') << inner->Base() << "-" << high << " " << r.prolog_size << " "
        << r.parameter_size << " " << r.local_size << " " << r.allocates_base_pointer << " "
        << r.program_string << "\n";
    dump_win(*inner, depth + 1, out);
  }
}

std::string dump(const Module& module) {
  std::ostringstream out;
  out << std::hex << (module.IsCorrupt() ? "corrupt\n" : "");
  for (const auto& [number, name] : module.Files()) out << "FILE " << number << " " << name << "\n";
  for (const auto& [high, range] : module.Functions().GetMap()) {
    const auto& f = *range.entry();
    out << "FUNC " << range.base() << "-" << high << " " << f.section << " " << f.parameter_size
        << " " << f.is_multiple << " " << f.name << "\n";
    for (const auto& line : f.lines()) {
      out << line.address << " " << line.size << " " << line.line << " " << line.source_file_id
          << "\n";
    }
    for (const auto& site : f.inlines()) {
      out << "I " << site.function_address << " " << site.code_size << " " << site.source_line
          << " " << site.file_id << " " << site.caller << " " << site.name << "\n";
    }
  }
  for (const auto& [address, symbol] : module.Publics().Map()) {
    out << "PUBLIC " << address << " " << symbol.parameter_size << " " << symbol.name << "\n";
  }
  for (const auto& map : module.WinFrameInfo()) {
    out << "WIN\n";
    dump_win(map, 0, out);
  }
  for (const auto& [high, range] : module.CFI().GetMap()) {
    out << "INIT " << range.base() << "-" << high << " " << range.entry() << "\n";
  }
  for (const auto& [address, rules] : module.CFIDelta()) {
    out << "CFI " << address << " " << rules << "\n";
  }
  return out.str();
}

constexpr char kText[] =
    "MODULE windows x86 ID a.pdb\n"
    "INFO CODE_ID 1 a.exe\n"
    "FILE 1 a.c\n"
    "FILE 2 b.c\n"
    "FILE 4294967297 again\n"
    "FUNC 1:1000 40 8 f\n"
    "1000 10 1 1\n"
    "1010 8 2 2\n"
    "I 1000 20 5 1 0 outer\n"
    "I 1008 8 6 2 1 inner\n"
    "I 1008 8 6 2 1 inner\n"
    "I 1018 10 6 2 1 cuts outer\n"
    "STACK WIN 4 1000 40 1 2 8 0 c 0 1 $eip\n"
    "1018 8 3 9\n"
    "FUNC 1020 10 0 overlaps\n"
    "1020 8 7 1\n"
    "FUNC m 1080 10 c g\n"
    "108c 4 9 1\n"
    "1080 4 8 1\n"
    "1082 4 7 1\n"
    "I 1084 4 1 1 1 late\n"
    "I 1080 8 1 1 0 wide\n"
    "PUBLIC 1048 0 in_the_gap\n"
    "PUBLIC m 2000 14 far\n"
    "PUBLIC 0 0 dropped\n"
    "STACK WIN 4 1008 8 0 0 4 0 0 0 0 1\n"
    "STACK WIN 0 1000 90 0 0 10 0 0 0 0 0\n"
    "STACK WIN 3 2000 10 0 0 1c 0 0 0 0 0\n"
    "STACK CFI INIT 1000 40 .cfa: $esp 4 + .ra: .cfa 4 - ^\n"
    "STACK CFI 0fff .cfa: before\n"
    "STACK CFI 1001 .cfa: $esp 8 +\n"
    "STACK CFI 1003 $ebp: first\n"
    "STACK CFI 1003 $ebp: .cfa 8 - ^\n"
    "STACK CFI 1005 :\n"
    "STACK CFI INIT 3000 10 nonsense\n";

TEST(TextModule, EveryKindOfLineInItsPlace) {
  const Loaded loaded = load(kText);
  EXPECT_EQ(loaded.log, "");
  EXPECT_EQ(dump(*loaded.module),
            "FILE 1 a.c\n"
            "FILE 2 b.c\n"
            "FUNC 1000-103f 1 8 0 f\n"
            "1000 10 1 1\n"
            "1010 8 2 2\n"
            "1018 8 3 9\n"
            "I 1000 20 5 1 0 outer\n"
            "I 1008 8 6 2 1 inner\n"
            "FUNC 1080-108f 0 c 1 g\n"
            "1080 4 8 1\n"
            "108c 4 9 1\n"
            "I 1080 8 1 1 0 wide\n"
            "I 1084 4 1 1 1 late\n"
            "PUBLIC 1048 0 in_the_gap\n"
            "PUBLIC 2000 14 far\n"
            "WIN\n"
            "1000-108f 0 10 0 0 \n"
            "WIN\n"
            "WIN\n"
            "WIN\n"
            "2000-200f 0 1c 0 0 \n"
            "WIN\n"
            "1000-103f 1 8 c 0 $eip\n"
            " 1008-100f 0 4 0 1 \n"
            "INIT 1000-103f .cfa: $esp 4 + .ra: .cfa 4 - ^\n"
            "INIT 3000-300f nonsense\n"
            "CFI fff .cfa: before\n"
            "CFI 1001 .cfa: $esp 8 +\n"
            "CFI 1003 $ebp: .cfa 8 - ^\n"
            "CFI 1005 :\n");
}

TEST(TextModule, BadLines) {
  const struct {
    const char* text;
    const char* message;  // "" for none
  } kCases[] = {
      {"1000 10 1 1", "Line 1: Found source line data without a function"},
      {"\n\r\n\nI 1 1 1 1 0 f", "Line 1: Found source line data without a function"},
      {"FUNC 1000 10 0 f\r\n\r\n1000 10 x 1\r\n", "Line 2: ParseLine failed"},
      {"FUNC 1000 10 0 f\nPUBLIC 2000 0 p\n1000 4 1 1", "Line 3: Found source line data without"},
      {"FUNC 1000 10 0 f\nPUBLIC 2000\n1000 4 1 1", "Line 3: Found source line data without"},
      {"FUNC 1000 10 0 f\nFUNC x\n1000 4 1 1", "Line 3: Found source line data without"},
      {"FUNC 1000 10 0 f\nI 1 1", "Line 2: ParseInlineFunction failed"},
      {"FUNC x", "Line 1: ParseFunction failed"},
      {"FILE 1", "Line 1: ParseFile on buffer failed"},
      {"PUBLIC 1000", "Line 1: ParsePublicSymbol failed"},
      {"PUBLIC 1000 0 a\nPUBLIC 1000 0 b", "Line 2: ParsePublicSymbol failed"},
      {"STACK FOO 1", "Line 1: ParseStackInfo failed"},
      {"STACK WIN\n", "Line 1: ParseStackInfo failed"},
      {"STACK CFI\nSTACK CFI 1 a: b", "Line 1: ParseStackInfo failed"},
      {"STACK CFI INIT 1000 10", "Line 1: ParseStackInfo failed"},
      {"STACK WIN 5 1000 20 1 2 3 4 5 6 0 0", "Line 1: ParseStackInfo failed"},
      {"FUNC 1000 10 0 f\nMODULE\n", "Line 2: ParseLine failed"},
      {"FUNC 1000 10 0 f\nSTACK WIN 3 1 1 0 0 0 0 0 0 0 0\n1000 4 1 1", ""},
      {"FUNC 1000 10 0 f\n1000 4 1 1\n1002 1 2 1\n1000 0 1 1\n", ""},
      {"STACK   CFI   INIT  1000  10 .cfa: 1", ""},
      {"INFO x\nMODULE x\n\n", ""},
  };
  for (const auto& c : kCases) {
    for (const Readers readers : {Readers::kQuickAndExact, Readers::kExact}) {
      const Loaded loaded = load(c.text, readers);
      EXPECT_THAT(loaded.log, HasSubstr(c.message)) << c.text;
      EXPECT_EQ(loaded.log.empty(), *c.message == '\0') << c.text << loaded.log;
      EXPECT_EQ(loaded.module->IsCorrupt(), *c.message != '\0') << c.text;
    }
  }
}

TEST(TextModule, EndOfTheBuffer) {
  const struct {
    std::string buffer;
    const char* dump;
    const char* message;
  } kCases[] = {
      {"", "", ""},
      {"x", "", ""},
      {std::string(5, '\0'), "", ""},
      {"FILE 1 name", "FILE 1 nam\n", ""},
      {"FILE 1 name\n", "FILE 1 name\n", ""},
      {std::string("FILE 1 name\n\0\0\0", 15), "FILE 1 name\n", ""},
      {std::string("FILE 1 n\0me\n", 12), "corrupt\nFILE 1 n_me\n",
       "ERROR: Null terminator is not expected in the middle of the symbol data\n"},
      {"SYM", "corrupt\n", "Found source line data"},
  };
  for (const auto& c : kCases) {
    Module module("m");
    std::string buffer = c.buffer;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(module.LoadMapFromMemory(buffer.data(), buffer.size()));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(c.message)) << c.buffer;
    EXPECT_EQ(dump(module), std::string(c.dump) + "WIN\nWIN\nWIN\nWIN\nWIN\n") << c.buffer;
  }
}

TEST(TextModule, HostileShapes) {
  std::string deep = "FUNC 0 100000 0 f\n", shuffled = "FUNC 0 1000000 0 f\n", line(2 << 20, 'x');
  for (int i = 0; i < 50000; ++i) {
    char buffer[128];
    snprintf(buffer, sizeof(buffer), "I %x %x 1 1 0 n\nSTACK WIN 4 %x %x 0 0 0 0 0 0 0 0\n", i,
             200000 - 2 * i, i, 200000 - 2 * i);
    deep += buffer;
    snprintf(buffer, sizeof(buffer), "%x 1 1 1\nPUBLIC %x 0 p\rFUNC %x 1 0 f\n",
             (i * 7919) % 50021 + 1, (i * 7919) % 50021 + 1, 0x2000000 - i);
    shuffled += buffer;
  }
  EXPECT_EQ(load(deep).module->Functions().GetMap().begin().value().entry()->inlines().size(),
            50000U);
  EXPECT_EQ(load(shuffled).module->Functions().GetCount(), 50001);
  EXPECT_TRUE(load(line).module->IsCorrupt());
  EXPECT_FALSE(load("FUNC 0 1 0 " + line).module->IsCorrupt());
  EXPECT_TRUE(load(std::string(1 << 20, '\r') + "x").module->IsCorrupt());
}

class Lookups : public testing::Test {
 protected:
  // "function+base file:line+base" of an address; "?" and 0 for what the lookup leaves alone.
  std::string at(uint64_t address) const {
    StackFrame frame;
    frame.module = &code_;
    frame.instruction = code_.base_address() + address;
    frame.function_name = frame.source_file_name = "?";
    loaded_.module->LookupAddress(&frame);
    std::ostringstream out;
    out << std::hex << frame.function_name << "+" << frame.function_base << " "
        << frame.source_file_name << ":" << frame.source_line << "+" << frame.source_line_base;
    EXPECT_TRUE(frame.inlines.empty());
    return out.str();
  }
  std::string win_at(uint64_t address) const {
    StackFrame frame;
    frame.module = &code_;
    frame.instruction = code_.base_address() + address;
    const std::unique_ptr<WindowsFrameInfo> info(loaded_.module->FindWindowsFrameInfo(&frame));
    if (!info) return "null";
    std::ostringstream out;
    out << std::hex << info->type_ << " " << info->valid << " " << info->parameter_size << " "
        << info->program_string;
    return out.str();
  }
  std::string cfi_at(uint64_t address) const {
    StackFrame frame;
    frame.module = &code_;
    frame.instruction = code_.base_address() + address;
    const std::unique_ptr<CFIFrameInfo> info(loaded_.module->FindCFIFrameInfo(&frame));
    if (!info) return "null";
    std::string text = info->cfa_rule() + "|" + info->ra_rule() + "|";
    for (const auto& [name, rule] : info->register_rules()) text += name + "=" + rule;
    return text;
  }

  const test_support::TestModule code_{0x400000};
  const Loaded loaded_ = load(kText);
};

TEST_F(Lookups, FunctionsLinesAndPublicSymbols) {
  const std::pair<uint64_t, const char*> kCases[] = {
      {0xfff, "?+0 ?:0+0"},
      {0x1000, "f+401000 a.c:1+401000"},
      {0x1017, "f+401000 b.c:2+401010"},
      {0x1018, "f+401000 ?:3+401018"},  // no such file
      {0x1020, "f+401000 ?:0+0"},       // no line
      {0x1047, "?+0 ?:0+0"},            // behind the function, no public symbol between
      {0x1048, "in_the_gap+401048 ?:0+0"},
      {0x108f, "g+401080 a.c:9+40108c"},
      {0x1090, "?+0 ?:0+0"},  // g hides the public symbol below it
      {0x2000, "far+402000 ?:0+0"},
      {~uint64_t{0} - 0x400000, "far+402000 ?:0+0"},
  };
  for (const auto& [address, answer] : kCases)
    EXPECT_EQ(at(address), answer) << std::hex << address;
}

TEST_F(Lookups, WindowsFrameInfo) {
  const std::pair<uint64_t, const char*> kCases[] = {
      {0x1000, "4 ffffffff 8 $eip"},
      {0x1008, "4 ffffffff 4 "},
      {0x1040, "0 ffffffff 10 "},
      {0x1090, "null"},
      {0x2000, "null"},  // type 3 is not searched, and a public symbol gives none
  };
  for (const auto& [address, answer] : kCases) {
    EXPECT_EQ(win_at(address), answer) << std::hex << address;
  }
  const Loaded plain = load("FUNC 10 10 c f\n");
  StackFrame frame;
  frame.module = &code_;
  frame.instruction = 0x400010;
  const std::unique_ptr<WindowsFrameInfo> info(plain.module->FindWindowsFrameInfo(&frame));
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->valid, WindowsFrameInfo::VALID_PARAMETER_SIZE);
  EXPECT_EQ(info->type_, WindowsFrameInfo::STACK_INFO_UNKNOWN);
  EXPECT_EQ(info->parameter_size, 0xcU);
}

TEST_F(Lookups, CFIRules) {
  const std::pair<uint64_t, const char*> kCases[] = {
      {0xfff, "null"},
      {0x1000, "$esp 4 +|.cfa 4 - ^|"},
      {0x1001, "$esp 8 +|.cfa 4 - ^|"},
      {0x103f, "$esp 8 +|.cfa 4 - ^|$ebp=.cfa 8 - ^"},
      {0x1040, "null"},
      {0x3000, "null"},  // the initial rules are malformed
  };
  for (const auto& [address, answer] : kCases) {
    EXPECT_EQ(cfi_at(address), answer) << std::hex << address;
  }
}

}  // namespace
}  // namespace google_breakpad
