// Reading streams: runs of pages, copies across page boundaries, strings, and the ends of the file.

#include "symforge/src/StreamReader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "base/little_endian.h"
#include "base/mapped_file.h"
#include "tests/support/memory_file.h"

namespace symforge_internal {
namespace {

constexpr uint32_t kPage = 16;

// A file of pages of 16 bytes: page n contains n * 16, n * 16 + 1, ..., but 1 instead of 0.
std::string pages(size_t count) {
  std::string bytes(count * kPage, '\0');
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>((i & 0xFF) == 0 ? 1 : i & 0xFF);
  return bytes;
}

class StreamReaderTest : public testing::Test {
 protected:
  // Opens a stream with the given pages of a file of 12 pages; `file` may be changed before.
  StreamReader open(std::vector<uint32_t> list, uint32_t size = 0) {
    m_mapping.emplace();
    EXPECT_TRUE(m_mapping->Map(test_support::MemoryFile(file).path()));
    m_file = {m_mapping->base(), m_mapping->length(), kPage};
    m_stream.pageIndices = std::move(list);
    m_stream.size = size;
    return StreamReader(m_stream, m_file);
  }
  static std::string text(const DataPtr<char>& bytes, size_t size) { return {bytes.data, size}; }

  std::string file = pages(12);

 private:
  std::optional<MMapWrapper> m_mapping;
  MsfPages m_file;
  StreamPair m_stream{0};
};

using Refusal = pdb_recoverable_exception;

TEST_F(StreamReaderTest, CopiesAcrossPageBoundaries) {
  StreamReader reader = open({2, 5, 6});
  reader.seek(13);
  const DataPtr<char> eight = reader.read<char>(8);
  EXPECT_TRUE(eight.isAllocated);
  EXPECT_EQ(text(eight, 8), file.substr(2 * kPage + 13, 3) + file.substr(5 * kPage, 5));
  EXPECT_EQ(std::string(eight.data + 8, StreamReader::kCopySlack),
            std::string(StreamReader::kCopySlack, '\0'));
  EXPECT_EQ(reader.getOffset(), 21u);
  EXPECT_EQ(reader.available(), 2 * kPage - 5);
  EXPECT_FALSE(reader.read<le_uint32>().isAllocated);
}

// A copy ends with a seek, so it fails if it ends with the last page. A read in place does not.
TEST_F(StreamReaderTest, RefusesACopyThatEndsWithTheLastPage) {
  StreamReader reader = open({2, 5});
  reader.seek(12);
  EXPECT_THROW(reader.read<char>(kPage + 4), Refusal);
  reader.seek(12);
  EXPECT_TRUE(reader.read<char>(kPage + 3).isAllocated);
  reader.seek(kPage);
  EXPECT_FALSE(reader.read<char>(kPage).isAllocated);
}

TEST_F(StreamReaderTest, MeasuresStringsAcrossPageBoundaries) {
  const struct {
    const char* what;
    std::vector<uint32_t> list;
    uint32_t start;
    size_t nul;  // position in the file
    bool copied;
    size_t length;
  } cases[] = {
      {"inside a page", {2, 5}, 3, 2 * kPage + 9, false, 6},
      {"terminator ends the run", {2, 5}, 3, 2 * kPage + 15, false, 12},
      {"terminator begins the next run", {2, 5}, 3, 5 * kPage, true, 13},
      {"terminator later in the next run", {2, 5}, 3, 5 * kPage + 7, true, 20},
      {"over adjacent pages", {2, 3}, 3, 3 * kPage + 7, false, 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    file = pages(12);
    file[c.nul] = '\0';
    StreamReader reader = open(c.list);
    reader.seek(c.start);
    const DataPtr<char> name = reader.readString();
    EXPECT_EQ(std::strlen(name.data), c.length);
    EXPECT_EQ(name.isAllocated, c.copied);
    EXPECT_EQ(reader.getOffset(), c.start + c.length + 1);
  }
}

// After the second page crossing the scan continues at a wrong position: at 46 instead of 32, and
// then at 78, where the second to last byte of the page ends it. 33 bytes were scanned, so 33 are
// returned.
TEST_F(StreamReaderTest, ScansTooFarAfterASecondPageBoundary) {
  file[7 * kPage + 2] = '\0';  // the actual end of the string
  file[11 * kPage + 14] = '\0';
  StreamReader reader = open({2, 5, 7, 9, 11});
  reader.seek(4);
  const DataPtr<char> name = reader.readString();
  EXPECT_EQ(std::strlen(name.data), 12u + 16 + 2);
  EXPECT_EQ(reader.getOffset(), 4u + 33);
}

TEST_F(StreamReaderTest, RejectsPagesOutsideTheFile) {
  EXPECT_THROW(open({}), Refusal);
  EXPECT_THROW(open({12}), Refusal);
  EXPECT_THROW(open({0x10000000}), Refusal);  // at 4 GiB, not at the start
  StreamReader reader = open({11, 12});
  EXPECT_EQ(reader.available(), kPage);
  EXPECT_THROW(reader.read<char>(kPage + 1), Refusal);
}

// An invalid size must fail before memory is allocated.
TEST_F(StreamReaderTest, RefusesAHugeReadAtOnce) {
  StreamReader reader = open({2, 5});
  EXPECT_THROW(reader.read<char>(0xFFFFFFF2), Refusal);
}

}  // namespace
}  // namespace symforge_internal
