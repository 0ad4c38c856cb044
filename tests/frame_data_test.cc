// Frame data of 32-bit code: STACK WIN lines, and the parameter sizes that come from it or from
// decorated names.

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "builders/pdb_builder.h"
#include "symforge/src/PDBParser.h"
#include "tests/support/process.h"

namespace google_breakpad {
namespace {

using builders::Fpo;
using builders::FrameData;
using builders::PdbBuilder;
using test_support::TemporaryDirectory;

// The lines of the converted PDB that begin with `word`.
std::string linesOf(PdbBuilder& pdb, const std::string& word) {
  const TemporaryDirectory directory;
  PDBParser parser(true);
  TextBuffer out;
  parser.load(directory.file("a.pdb", pdb.build().bytes).c_str(), nullptr, nullptr, out);
  parser.printBreakpadSymbols(out, nullptr);
  std::istringstream text{std::string(out.view())};
  std::string lines;
  for (std::string line; std::getline(text, line);)
    if (line.compare(0, word.size(), word) == 0) lines += line + "\n";
  return lines;
}

PdbBuilder pdb32() {
  PdbBuilder pdb;
  pdb.dbi.machine = 0x14C;
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x1000, .raw_size = 0x1000});
  return pdb;
}

TEST(FrameDataTest, PrintsTheNewKindFirstInOrderOfAddressAndSize) {
  PdbBuilder pdb = pdb32();
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
  EXPECT_EQ(linesOf(pdb, "STACK"),
            "STACK WIN 4 1000 30 d 0 b e a c 1 $T0 .raSearch = \n"
            "STACK WIN 4 1000 31 0 0 0 0 0 0 1 \n"
            "STACK WIN 4 2000 30 0 0 0 0 0 0 1 $T0 .raSearch = \n"
            "STACK WIN 0 1 1 0 0 0 7 0 0 0 0\n"
            "STACK WIN 0 1000 20 5 0 3 2 10 0 0 1\n");
}

TEST(FrameDataTest, KeepsTheFirstRecordOfAStretch) {
  PdbBuilder pdb = pdb32();
  pdb.fpo({});  // zeros in front are dropped, whatever else such a record holds
  pdb.fpo({.locals = 1});
  pdb.fpo({.start = 5, .code_size = 1, .locals = 1, .prolog = 1});
  pdb.fpo({.start = 5, .code_size = 1, .locals = 2, .prolog = 1});
  pdb.fpo({.start = 5, .code_size = 1, .locals = 3, .prolog = 2});
  pdb.fpo({.start = 4, .code_size = 2, .locals = 4});
  pdb.fpo({.start = 5, .code_size = 1, .locals = 5, .prolog = 3});
  pdb.fpo({.locals = 6});  // zeros that follow something else count
  EXPECT_EQ(linesOf(pdb, "STACK"),
            "STACK WIN 0 0 0 0 0 0 0 6 0 0 0\n"
            "STACK WIN 0 4 2 0 0 0 0 4 0 0 0\n"
            "STACK WIN 0 5 1 1 0 0 0 1 0 0 0\n");
}

TEST(ParamSizeTest, ReadsDecoratedNames) {
  const struct {
    const char* name;
    const char* size;
  } cases[] = {
      {"_foo@12", "c"},  {"@foo@12", "4"}, {"@foo@8", "0"},
      {"@foo@4", "0"},   {"_foo", "0"},    {"_foo@1x", "0"},
      {"@foo", "0"},     {"foo@12", "0"},  {"_a@4@12", "c"},
      {"_foo@", "0"},    {"@foo@-4", "0"}, {"_foo@-4", "fffffffc"},
      {"_foo@ 12", "c"}, {"@foo@@9", "1"}, {"_foo@4294967297", "1"},
  };
  for (const auto& c : cases) {
    PdbBuilder pdb = pdb32();
    pdb.add_module("a.obj").proc({.name = "f", .section = 1, .offset = 0, .length = 8}).end();
    pdb.public_function(c.name, 1, 0);
    EXPECT_EQ(linesOf(pdb, "FUNC"), std::string("FUNC 1:1000 8 ") + c.size + " f\n") << c.name;
  }
}

}  // namespace
}  // namespace google_breakpad
