// The identity of a PE image, and the file positions of its RVAs.

#include "symforge/src/pe/pe_image.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "builders/pe_builder.h"
#include "tests/support/memory_file.h"

namespace symforge_internal {
namespace {

using builders::Bytes;
using builders::PeBuilder;
using builders::put_u16;
using builders::put_u32;
using test_support::MemoryFile;

constexpr size_t kOptional = PeBuilder::kNtHeaders + 24;
constexpr size_t kDebugDirectory = kOptional + 112 + 8 * IMAGE_DIRECTORY_ENTRY_DEBUG;
constexpr size_t kFirstSection = kOptional + 240;
constexpr char kPdbPath[] = "C:\\build\\a.pdb";

std::string imageWithIdentity(uint32_t age = 1) {
  return PeBuilder().codeview({}, age, kPdbPath).build();
}

// "ID NAME", or "" for a file without an identity.
std::string debugIdentityOf(const std::string& bytes) {
  std::string id = "kept";
  std::string name = "kept";
  if (pe64_debug_id(MemoryFile(bytes).path(), id, name)) return id + " " + name;
  EXPECT_EQ(id + name, "keptkept");
  return {};
}

TEST(PeIdentityTest, IsMissingFromEverythingElse) {
  const std::pair<const char*, std::function<void(std::string&)>> cases[] = {
      {"no DOS signature", [](std::string& b) { put_u16(b, 0, 0x5A4E); }},
      {"no NT headers", [](std::string& b) { put_u32(b, 60, 0); }},
      {"NT headers before the end", [](std::string& b) { put_u32(b, 60, b.size() - 263); }},
      {"NT headers far outside", [](std::string& b) { put_u32(b, 60, 0xFFFFFFFF); }},
      {"other optional header",
       [](std::string& b) { put_u16(b, PeBuilder::kNtHeaders + 20, 248); }},
      {"32 bits", [](std::string& b) { put_u16(b, kOptional, 0x10B); }},
      {"no sections", [](std::string& b) { put_u16(b, PeBuilder::kNtHeaders + 6, 0); }},
      {"no debug directory", [](std::string& b) { put_u32(b, kDebugDirectory, 0); }},
      {"debug directory nowhere", [](std::string& b) { put_u32(b, kDebugDirectory, 0x500000); }},
      {"empty debug directory", [](std::string& b) { put_u32(b, kDebugDirectory + 4, 27); }},
      {"CodeView entry after the end", [](std::string& b) { put_u32(b, kDebugDirectory + 4, 55); }},
      {"old CodeView record", [](std::string& b) { put_u32(b, b.find("RSDS"), 0x3031424E); }},
      {"section after the file",
       [](std::string& b) { put_u32(b, kFirstSection + 20, 0xFFFFFFF0); }},
      {"record cut short", [](std::string& b) { b.resize(b.find("RSDS") + 23); }},
  };
  for (const auto& [what, damage] : cases) {
    std::string bytes = imageWithIdentity();
    damage(bytes);
    EXPECT_EQ(debugIdentityOf(bytes), "") << what;
  }
  EXPECT_EQ(debugIdentityOf(PeBuilder(false).codeview({}, 1, kPdbPath).build()), "") << "PE32";
  std::string none;
  EXPECT_FALSE(pe64_debug_id(nullptr, none, none));
  EXPECT_FALSE(pe64_debug_id("/nonexistent", none, none));
}

TEST(PeImageTest, MapsAnRvaByTheFirstSectionThatContainsIt) {
  // 512 bytes of each section are in the file; the second one starts inside the first.
  const std::string bytes = PeBuilder()
                                .section("a", 0x1000, std::string(0x200, 'a'), 0x1000)
                                .section("b", 0x1100, std::string(0x200, 'b'))
                                .build();
  MMapWrapper mapping;
  ASSERT_TRUE(mapping.Map(MemoryFile(bytes).path()));
  const PeImage image(mapping);
  const auto at = [&image](uint32_t rva) {
    const uint8_t* byte = image.ImageRvaToVa(rva);
    return byte == nullptr ? '-' : static_cast<char>(*byte);
  };
  EXPECT_EQ(at(0xFFF), '-');
  EXPECT_EQ(at(0x1000), 'a');
  EXPECT_EQ(at(0x11FF), 'a');
  EXPECT_EQ(at(0x1200), 'b');
  EXPECT_EQ(at(0x12FF), 'b');
  EXPECT_EQ(at(0x1300), '-');  // in memory only
  EXPECT_NE(image.bytesAt(0x1100, 0x300), nullptr);
  EXPECT_EQ(image.bytesAt(0x1100, 0x301), nullptr);  // exceeds the file
}

}  // namespace
}  // namespace symforge_internal
