// The image of a PDB: which files are accepted as one, and its identity.

#include "symforge/src/pe/code_file.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "builders/pe_builder.h"
#include "symforge/src/pdb_exception.h"
#include "tests/support/memory_file.h"

namespace symforge_internal {
namespace {

using builders::PeBuilder;
using builders::put_u16;
using builders::put_u32;

// The identifier of the image, or the text of the exception.
std::string identityOf(const std::string& bytes) {
  CodeFile image;
  try {
    image.readPeHeaders(test_support::MemoryFile(bytes).path());
  } catch (const pdb_exception& e) {
    EXPECT_FALSE(image.found());
    return e.what();
  }
  EXPECT_TRUE(image.found());
  return image.identifier();
}

std::string imageOf(bool pe32_plus) {
  return PeBuilder(pe32_plus).time_stamp(0x5F00).size_of_image(0xA000).build();
}

TEST(CodeFileTest, ReadsTheIdentityOfBothKinds) {
  EXPECT_EQ(identityOf(imageOf(true)), "    5F00A000");
  EXPECT_EQ(identityOf(imageOf(false)), "    5F00A000");
  CodeFile missing;
  missing.readPeHeaders("/nonexistent");
  EXPECT_FALSE(missing.found());
}

TEST(CodeFileTest, RefusesOtherFiles) {
  constexpr size_t kNt = PeBuilder::kNtHeaders;
  const struct {
    const char* what;
    std::function<void(std::string&)> damage;
    const char* message;
  } cases[] = {
      {"empty", [](std::string& b) { b.clear(); }, "Error reading PE header"},
      {"63 bytes", [](std::string& b) { b.resize(63); }, "Error reading PE header"},
      {"64 bytes", [](std::string& b) { b.resize(64); }, "Error reading PE NT header"},
      {"other signature", [](std::string& b) { b[0] = 'N'; }, "Invalid PE header detected"},
      {"263 bytes of NT headers", [](std::string& b) { b.resize(kNt + 263); },
       "Error reading PE NT header"},
      {"NT headers far outside", [](std::string& b) { put_u32(b, 60, 0xFFFFFFFF); },
       "Error reading PE NT header"},
      {"NT headers at 0", [](std::string& b) { put_u32(b, 60, 0); }, "Unknown image format"},
      {"other magic", [](std::string& b) { put_u16(b, kNt + 24, 0x107); }, "Unknown image format"},
      {"managed code", [](std::string& b) { put_u32(b, kNt + 24 + 112 + 8 * 14, 0x1000); },
       "The image is a CLR assembly, which is not supported"},
  };
  for (const auto& c : cases) {
    std::string bytes = imageOf(true);
    bytes.resize(2048);
    c.damage(bytes);
    EXPECT_EQ(identityOf(bytes), c.message) << c.what;
  }
}

}  // namespace
}  // namespace symforge_internal
