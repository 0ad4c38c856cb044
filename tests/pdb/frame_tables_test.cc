// Frame data of 32-bit code: STACK WIN lines.

#include "symforge/src/pdb/frame_tables.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

TEST(FrameTablesTest, PrintsTheNewKindFirstInOrderOfAddressAndSize) {
  SmallPdb pdb;
  const uint32_t program = pdb.names.add("$T0 .raSearch = ");
  pdb.fpo({.start = 0x1000,
           .code_size = 0x20,
           .locals = 0x10,
           .params = 3,
           .prolog = 5,
           .saved_regs = 2,
           .uses_base_pointer = true});
  pdb.fpo({.start = 0x1, .code_size = 1, .saved_regs = 7});
  pdb.frame_data({.start = 0x2000, .code_size = 0x30, .program = program});
  pdb.frame_data({.start = 0x1000, .code_size = 0x31});
  pdb.frame_data({.start = 0x1000,
                  .code_size = 0x30,
                  .locals = 0xA,
                  .params = 0xB,
                  .max_stack = 0xC,
                  .program = program,
                  .prolog = 0xD,
                  .saved_regs = 0xE});
  EXPECT_EQ(convert(pdb).lines("STACK"),
            "STACK WIN 4 1000 30 d 0 b e a c 1 $T0 .raSearch = \n"
            "STACK WIN 4 1000 31 0 0 0 0 0 0 1 \n"
            "STACK WIN 4 2000 30 0 0 0 0 0 0 1 $T0 .raSearch = \n"
            "STACK WIN 0 1 1 0 0 0 7 0 0 0 0\n"
            "STACK WIN 0 1000 20 5 0 3 2 10 0 0 1\n");
}

TEST(FrameTablesTest, KeepsTheFirstRecordOfARange) {
  SmallPdb pdb;
  pdb.fpo({});  // leading zeros are dropped, whatever else the record contains
  pdb.fpo({.locals = 1});
  pdb.fpo({.start = 5, .code_size = 1, .locals = 1, .prolog = 1});
  pdb.fpo({.start = 5, .code_size = 1, .locals = 2, .prolog = 1});
  pdb.fpo({.start = 5, .code_size = 1, .locals = 3, .prolog = 2});
  pdb.fpo({.start = 4, .code_size = 2, .locals = 4});
  pdb.fpo({.start = 5, .code_size = 1, .locals = 5, .prolog = 3});
  pdb.fpo({.locals = 6});  // zeros after another value are kept
  EXPECT_EQ(convert(pdb).lines("STACK"),
            "STACK WIN 0 0 0 0 0 0 0 6 0 0 0\n"
            "STACK WIN 0 4 2 0 0 0 0 4 0 0 0\n"
            "STACK WIN 0 5 1 1 0 0 0 1 0 0 0\n");
}

}  // namespace
}  // namespace test_support
