// The global string table of a PDB.

#include "symforge/src/pdb/name_stream.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

// The string table "abcd" without its NUL, with buckets that refer to names at 1 and 0x10000.
TEST(NameStreamTest, RejectsANameOutsideOnlyOnUse) {
  const auto named = [](uint32_t offset) {
    SmallPdb pdb;
    pdb.add_module("a.obj").file(offset);
    pdb.names.add("");  // creates the stream
    pdb.lay_out();
    pdb.msf.set_stream(
        pdb.info.named_streams.at(0).second,
        Bytes().u32(0xEFFEEFFE).u32(1).u32(4).text("abcd").u32(2).u32(1).u32(0x10000).str());
    return convert(pdb);
  };
  EXPECT_EQ(named(2).text.find("FILE"), std::string::npos);
  EXPECT_EQ(named(1).lines("FILE"), "FILE 1 bcd\x02\n") << "its end is a byte of the bucket count";
  EXPECT_EQ(named(0x10000).failure, "Invalid name stream");
}

}  // namespace
}  // namespace test_support
