// Loading text modules: what becomes of bad lines, of odd ends of the buffer, and of texts made to
// cost time or memory. What good lines become is seen by lookups and by the writer of SYMB.

#include <gmock/gmock.h>

#include <memory>
#include <string>

#include "processor/basic_source_line_resolver_module.h"
#include "processor/text_module_loader.h"

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
    const char* file;  // the name of file 1
    const char* message;
  } kCases[] = {
      {"", "", ""},
      {"x", "", ""},
      {std::string(5, '\0'), "", ""},
      {"FILE 1 name", "nam", ""},
      {"FILE 1 name\n", "name", ""},
      {std::string("FILE 1 name\n\0\0\0", 15), "name", ""},
      {std::string("FILE 1 n\0me\n", 12), "n_me",
       "ERROR: Null terminator is not expected in the middle of the symbol data\n"},
      {"SYM", "", "Found source line data"},
  };
  for (const auto& c : kCases) {
    Module module("m");
    std::string buffer = c.buffer;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(module.LoadMapFromMemory(buffer.data(), buffer.size()));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(c.message)) << c.buffer;
    EXPECT_EQ(module.IsCorrupt(), *c.message != '\0') << c.buffer;
    std::string file;
    for (const auto& [number, name] : module.Files()) file += name;
    EXPECT_EQ(file, c.file);
  }
}

// (Deep nesting: see the writer of SYMB, which loads a module first.)
TEST(TextModule, HostileShapes) {
  std::string shuffled = "FUNC 0 1000000 0 f\n", line(2 << 20, 'x');
  for (int i = 0; i < 50000; ++i) {
    char buffer[128];
    const int at = (i * 7919) % 50021 + 1;
    snprintf(buffer, sizeof(buffer), "%x 1 1 1\nPUBLIC %x 0 p\rFUNC %x 1 0 f\n", at, at,
             0x2000000 - i);
    shuffled += buffer;
  }
  EXPECT_EQ(load(shuffled).module->Functions().GetCount(), 50001);
  EXPECT_TRUE(load(line).module->IsCorrupt());
  EXPECT_FALSE(load("FUNC 0 1 0 " + line).module->IsCorrupt());
  EXPECT_TRUE(load(std::string(1 << 20, '\r') + "x").module->IsCorrupt());
}

}  // namespace
}  // namespace google_breakpad
