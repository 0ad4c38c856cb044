#include "symforge/src/msf/stream_directory.h"

#include <cassert>
#include <cstdio>
#include <cstring>

#include "base/limits.h"
#include "symforge/src/PDBHeaders.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kWord = sizeof(uint32_t);

uint32_t dividedUp(uint32_t number, uint32_t by) { return number / by + (number % by != 0); }

class DirectoryReader {
 public:
  DirectoryReader(const MsfPages& file, uint32_t directorySize)
      : m_file(file),
        m_items(file.pageSize / kWord),
        m_indexPages(dividedUp(dividedUp(directorySize, file.pageSize) * kWord, file.pageSize)) {}

  bool read(std::vector<StreamPair>& streams) {
    if (!checkIndexPages() || !openDirectory() || !readSizes(streams)) return false;
    checkSizes(streams);
    return readPages(streams);
  }

 private:
  bool checkIndexPages() const;
  bool openDirectory();
  bool readSizes(std::vector<StreamPair>& streams);
  void checkSizes(const std::vector<StreamPair>& streams) const;
  bool readPages(std::vector<StreamPair>& streams);

  bool wordAt(uint64_t position, uint32_t& word) const;
  bool indexPage(uint32_t number, uint32_t& page) const;
  bool directoryPage(uint32_t number, uint32_t& page) const;
  bool take(uint32_t& word) {
    if (m_atPageEnd && !turnPage()) return false;
    return wordAt(m_start + uint64_t{kWord} * m_position++, word);
  }
  // Checks whether the page is at its end; then the next word is on the next page, which exists
  // only if there is such a word. Tested for equality: pages of one word never get there, and
  // reading continues in the bytes after them.
  void notePageEnd() { m_atPageEnd = m_position == m_items; }
  bool turnPage();

  const MsfPages& m_file;
  const uint32_t m_items;       // words in a page
  const uint32_t m_indexPages;  // number of them
  uint32_t m_streamCount = 0;
  uint32_t m_page = 0;      // number of the directory page that is read
  uint64_t m_start = 0;     // its offset in the file
  uint32_t m_position = 0;  // words after its start
  bool m_atPageEnd = false;
};

// A word that begins in the file, and can end in the zeros after it.
bool DirectoryReader::wordAt(uint64_t position, uint32_t& word) const {
  if (position >= m_file.length) return false;
  le_uint32 bytes;
  std::memcpy(&bytes, m_file.base + position, sizeof(bytes));
  word = bytes;
  return true;
}

bool DirectoryReader::indexPage(uint32_t number, uint32_t& page) const {
  return wordAt(sizeof(PDBHeader) + uint64_t{kWord} * number, page);
}

// The number in the file of the directory's page `number`. Index pages are read whole: also numbers
// after the last page that the directory's size needs are available.
bool DirectoryReader::directoryPage(uint32_t number, uint32_t& page) const {
  assert(number < uint64_t{m_indexPages} * m_items);
  uint32_t index;
  if (!indexPage(number / m_items, index)) return false;
  const uint64_t start = uint64_t{index} * m_file.pageSize;
  return wordAt(start + uint64_t{kWord} * (number % m_items), page);
}

bool DirectoryReader::checkIndexPages() const {
  for (uint32_t i = 0; i < m_indexPages; ++i) {
    uint32_t page;
    if (!indexPage(i, page)) return false;
    const size_t start = size_t{page} * m_file.pageSize;
    if (start < m_file.length) continue;
    std::fprintf(stderr, "[%u] Root index: %u * %u: %zu >= %zu\n", i, page, m_file.pageSize, start,
                 m_file.length);
    return false;
  }
  return true;
}

bool DirectoryReader::openDirectory() {
  uint32_t page;
  if (!directoryPage(0, page)) return false;
  m_start = uint64_t{page} * m_file.pageSize;
  return take(m_streamCount) && uint64_t{m_streamCount} * kWord < m_file.length;
}

bool DirectoryReader::turnPage() {
  uint32_t page;
  if (!directoryPage(++m_page, page)) return false;
  m_start = uint64_t{page} * m_file.pageSize;
  m_position = 0;
  m_atPageEnd = false;
  return true;
}

bool DirectoryReader::readSizes(std::vector<StreamPair>& streams) {
  if (m_streamCount > limits::kStreams) throw LimitExceeded("The file has too many streams");
  streams.reserve(m_streamCount);
  for (uint32_t i = 0; i < m_streamCount; ++i) {
    uint32_t size;
    if (!take(size)) return false;
    streams.emplace_back(size == kDeletedStream ? 0 : size);
    notePageEnd();
  }
  return true;
}

// A directory can name one page many times, and also parts of itself.
void DirectoryReader::checkSizes(const std::vector<StreamPair>& streams) const {
  uint64_t bytes = 0;
  uint64_t pages = 0;
  for (const StreamPair& stream : streams) {
    bytes += stream.size;
    pages += stream.size / m_file.pageSize;
  }
  if (bytes > limits::kStreamBytes.of(m_file.length) ||
      pages > limits::kStreamPages.of(m_file.length)) {
    throw LimitExceeded("The streams are larger than the file");
  }
}

bool DirectoryReader::readPages(std::vector<StreamPair>& streams) {
  for (StreamPair& stream : streams) {
    const uint32_t count = dividedUp(stream.size, m_file.pageSize);
    stream.pageIndices.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      uint32_t number;
      if (!take(number)) return false;
      stream.pageIndices.push_back(number);
      notePageEnd();
    }
  }
  return true;
}

}  // namespace

bool readStreamDirectory(const MsfPages& file, uint32_t directorySize,
                         std::vector<StreamPair>& streams) {
  return DirectoryReader(file, directorySize).read(streams);
}

}  // namespace symforge_internal
