// The named streams of a PDB.

#include "symforge/src/pdb/info_stream.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

constexpr char kRefused[] = "Failed to read PDB Root Stream";

// The path of the only file is printed only if /NAMES was found.
Conversion withNamedStreams(const std::function<void(SmallPdb&)>& change) {
  SmallPdb pdb;
  pdb.add_module("a.obj").file(pdb.names.add("a.cc"));
  pdb.lay_out();
  change(pdb);
  pdb.msf.set_stream(1, pdb.info.bytes());
  return convert(pdb);
}

TEST(InfoStreamTest, FindsNamedStreams) {
  const struct {
    const char* what;
    std::vector<std::pair<std::string, uint32_t>> added;
    uint32_t capacity, present_words;
  } found[] = {{"as it is", {}, 0, 0},
               {"one word, eight slots", {}, 8, 1},
               {"forty slots in two words", {}, 40, 2},
               {"first of two", {{"/NAMES", 999}}, 0, 0}};
  for (const auto& c : found) {
    const Conversion result = withNamedStreams([&](SmallPdb& p) {
      p.info.capacity = c.capacity;
      p.info.present_words = c.present_words;
      p.info.named_streams.insert(p.info.named_streams.end(), c.added.begin(), c.added.end());
    });
    EXPECT_EQ(result.lines("FILE"), "FILE 1 a.cc\n") << c.what << ": " << result.failure;
    EXPECT_EQ(result.messages, "") << c.what;
  }
  const auto called = [](const char* name) {
    return withNamedStreams([&](SmallPdb& p) { p.info.named_streams[0].first = name; });
  };
  EXPECT_EQ(called("/names").lines("FILE"), "FILE 1 a.cc\n");
  const Conversion none = called("/OTHER");
  EXPECT_EQ(none.lines("FILE"), "");
  EXPECT_EQ(none.messages.find("Warning: Could not find /NAMES stream: /"), 0u);

  const Conversion deleted = withNamedStreams([](SmallPdb& p) { p.info.deleted_bits = {0x10, 0}; });
  EXPECT_EQ(deleted.lines("FILE"), "FILE 1 a.cc\n");
  EXPECT_EQ(deleted.messages, "Warning: deleted names bitset is not empty, unsupported\n");

  const Conversion invalid = withNamedStreams([](SmallPdb& p) {
    p.info.capacity = 64;
    p.info.present_words = 1;
  });
  EXPECT_EQ(invalid.failure, kRefused);
  EXPECT_EQ(invalid.messages, "Invalid name index\n");
}

}  // namespace
}  // namespace test_support
