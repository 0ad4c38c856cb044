// The symbol record stream.

#include "symforge/src/pdb/public_functions.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

TEST(PublicFunctionsTest, KeepsFunctionsThatNoModuleHas) {
  EXPECT_EQ(recordsOf([](SmallPdb& pdb, ModuleBuilder& module, uint32_t) {
              module.proc({.name = "covering", .offset = 0x10, .length = 1, .type = pdb.type});
              pdb.public_function("covered", 1, 0x10)
                  .public_function("second", 1, 0x30)
                  .public_function("shadowed", 1, 0x30)
                  .public_function("no section", 0, 0x20)
                  .public_function("no such section", 2, 0x40);
              pdb.symbol_records.text(public_symbol("data", 1, 0x50, 0))
                  .text(public_symbol("both", 1, 0x60, 3))
                  .u16(4)
                  .u32(0);
              pdb.public_function("__cdecl last", 1, 0x20);
            }),
            "PUBLIC 20 0 no section\n"
            "FUNC 1:1010 1 0 covering()\n"
            "PUBLIC 1020 0 __cdecl last\n"
            "PUBLIC 1030 0 second\n");
}

}  // namespace
}  // namespace test_support
