// Loading text modules: bad lines, unusual ends of the buffer, and texts crafted to cost time or
// memory. Lookups and the SYMB writer's tests cover valid lines.

#include <gmock/gmock.h>

#include <memory>
#include <string>

#include "processor/basic_source_line_resolver_module.h"
#include "processor/text_module_loader.h"
#include "tests/support/data.h"

namespace google_breakpad {
namespace {

using Module = BasicSourceLineResolver::Module;
using Readers = TextModuleLoader::Readers;
using testing::HasSubstr;

struct Loaded {
  std::unique_ptr<Module> module = std::make_unique<Module>("m");
  std::string log;
};

// Loads a text and its terminating NUL.
Loaded load(std::string text, Readers readers = Readers::kQuickAndExact) {
  Loaded loaded;
  testing::internal::CaptureStderr();
  TextModuleLoader(loaded.module.get(), readers).Load(text.data(), text.size() + 1);
  loaded.log = testing::internal::GetCapturedStderr();
  return loaded;
}

TEST(TextModule, BadLines) {
  for (const auto& [section, text, message] : test_support::test_cases("bad_lines.txt")) {
    for (const Readers readers : {Readers::kQuickAndExact, Readers::kExact}) {
      const Loaded loaded = load(text, readers);
      EXPECT_THAT(loaded.log, HasSubstr(message == "good" ? "" : message)) << text;
      EXPECT_EQ(loaded.log.empty(), message == "good") << text << loaded.log;
      EXPECT_EQ(loaded.module->IsCorrupt(), message != "good") << text;
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

// For deep nesting see the tests of the SYMB writer, which loads a module first.
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
  EXPECT_TRUE(load(std::string(1 << 20, '\r').append("x")).module->IsCorrupt());
}

}  // namespace
}  // namespace google_breakpad
