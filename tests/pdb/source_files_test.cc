// FILE lines.

#include "symforge/src/pdb/source_files.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

TEST(SourceFilesTest, NumbersEveryEntryAndPrintsEachFileOnce) {
  SmallPdb pdb;
  const uint32_t a = pdb.names.add("a.h");
  const uint32_t b = pdb.names.add("b.h");
  const uint32_t c = pdb.names.add("c.h");
  ModuleBuilder& first = pdb.add_module("1");
  first.file(a, std::string(16, 'm'), 1);
  first.file(b);
  first.file(7777);  // no such name: the number is not used
  ModuleBuilder& second = pdb.add_module("2");
  second.file(a, "odd");
  second.file(c);
  pdb.add_module("3").file(pdb.names.add("a.h"));  // another string with the same text
  EXPECT_EQ(convert(pdb).lines("FILE"), "FILE 1 a.h\nFILE 2 b.h\nFILE 5 c.h\nFILE 6 a.h\n");
}

}  // namespace
}  // namespace test_support
