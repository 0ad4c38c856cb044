// Conversion of a module's symbols to functions.

#include "symforge/src/emit/module_functions.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

TEST(ModuleFunctionsTest, MakesRecordsOfProceduresAndThunks) {
  EXPECT_EQ(recordsOf([](SmallPdb& pdb, ModuleBuilder& module, uint32_t) {
              module
                  .proc({.name = "local", .offset = 0x10, .length = 1, .type = pdb.type}, kLProc32)
                  .proc({.name = "by id", .offset = 0x20, .length = 1}, kGProc32Id)
                  .proc({.name = "__cdecl bare", .offset = 0x30, .length = 5})
                  .proc({.name = "empty", .offset = 0x40, .type = pdb.type})
                  .thunk({.name = "alone", .offset = 0x50, .length = 5})
                  .thunk({.name = "nested", .offset = 0x60, .length = 5}, 4)
                  .proc({.name = "nowhere", .section = 0, .offset = 7, .length = 2})
                  .symbol(0, "")
                  .proc({.name = "after the end", .offset = 0x70, .length = 5});
            }),
            "FUNC 0:7 2 0 nowhere\n"
            "FUNC 1:1010 1 0 local()\n"
            "FUNC 1:1030 5 0 __cdecl bare\n"
            "FUNC 1:1040 0 0 empty()\n"
            "PUBLIC 1050 0 alone\n"
            "FUNC 1:1060 5 0 nested\n");
}

TEST(ModuleFunctionsDeathTest, AbortsOnASiteOutsideOfAFunction) {
  SmallPdb pdb;
  pdb.add_module("a").thunk({.name = "t", .length = 1}).inline_site(0x1000, Annotations());
  const std::string bytes = pdb.build().bytes;
  EXPECT_DEATH(convertAlone(bytes), "current_function != nullptr");
}

}  // namespace
}  // namespace test_support
