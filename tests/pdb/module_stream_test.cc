// The signature and subsections of a module.

#include "symforge/src/pdb/module_stream.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

TEST(ModuleStreamTest, WalksSubsections) {
  const std::string found = "FUNC 1:1000 4 0 f()\n1000 4 9 1\n";
  const std::string invalid = "Invalid subsection header detected";
  const struct {
    const char* what;
    std::vector<uint32_t> words;  // before the lines of the module's function
    std::string result;
  } cases[] = {
      {"another kind", {0xF3, 8, 1, 2}, found},
      {"a payload of no multiple of 4", {0xF3, 5, 1, 2}, found},
      // Only the header is checked: the contents are parsed as further headers.
      {"kind 0", {0, 999}, found},
      {"a negative kind", {0x800000F2, 999}, found},
      {"an end beyond the pages", {0xF3, 5000}, invalid},
      {"an end in the last page, after the stream", {0xF3, 3000}, "FUNC 1:1000 4 0 f()\n"},
      {"a walk that comes back to where it was", {0xF3, 0xFFFFFFF8}, invalid},
  };
  const auto recordsWith = [](const std::function<void(ModuleBuilder&)>& change) {
    return recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t file) {
      module.proc({.name = "f", .length = 4, .type = pdb.type}).end();
      change(module);
      module.lines(1, 0, 4, file, {{0, 9}});
    });
  };
  for (const auto& c : cases) {
    Bytes bytes;
    for (const uint32_t word : c.words) bytes.u32(word);
    EXPECT_EQ(recordsWith([&](ModuleBuilder& m) { m.raw_subsections(bytes.str()); }), c.result)
        << c.what;
  }
  EXPECT_EQ(recordsWith([](ModuleBuilder& m) { m.signature(5); }),
            "Invalid module stream signature");
  EXPECT_EQ(recordsWith([](ModuleBuilder& m) { m.old_lines("12345678"); }), found);
}

}  // namespace
}  // namespace test_support
