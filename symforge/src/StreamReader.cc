#include "symforge/src/StreamReader.h"

#include <cstring>
#include <new>

#include "base/mapped_file.h"

namespace symforge_internal {

namespace {

constexpr char kOutsideOfPages[] = "Requesting offset outside of page range";

}  // namespace

void StreamReader::seekToOtherRun(uint32_t offset) {
  const std::vector<uint32_t>& pages = m_stream.pageIndices;
  const uint64_t pageSize = m_file.pageSize;
  const uint32_t page = offset / m_file.pageSize;
  const uint32_t inner = offset % m_file.pageSize;
  if (page >= pages.size()) throw pdb_recoverable_exception(kOutsideOfPages);
  const uint64_t position = pageSize * pages[page];
  if (position >= m_file.length) throw pdb_recoverable_exception(kOutsideOfPages);

  // The run ends before the first page that is not adjacent, or that is not in the file.
  size_t last = page;
  uint64_t next = position + pageSize;
  const auto adjacent = [](uint64_t before, uint32_t after) { return before + 1 == after; };
  while (last + 1 < pages.size() && adjacent(pages[last], pages[last + 1]) &&
         next < m_file.length) {
    ++last;
    next += pageSize;
  }
  // A run is extended back to its first page, so that seeking back and forth in it is cheap. The
  // bytes after the position are the same as if it began with the requested page.
  size_t first = page;
  uint64_t before = 0;
  while (first != 0 && adjacent(pages[first - 1], pages[first])) {
    --first;
    before += pageSize;
  }
  if (FileBudget* const budget = m_file.budget()) {
    budget->visited.spend((last - first + 1) * sizeof(uint32_t));
  }
  if (next + kCopySlack > m_file.length + MMapWrapper::kGuardBytes)
    throw pdb_recoverable_exception(kOutsideOfPages);

  m_data = m_file.base + position + inner;
  m_runData = m_file.base + position - before;
  m_runStart = offset - inner - static_cast<uint32_t>(before);
  m_offset = offset;
  m_seqPageEnd = m_file.base + next;
  m_runBytes = static_cast<uint64_t>(m_seqPageEnd - m_runData);
}

void* StreamReader::readAcrossRuns(uint32_t size) {
  // Checked before any allocation: a damaged count must not cost gigabytes. A copy that ends
  // exactly with the last page also fails, as each copied piece ends with a seek.
  const uint64_t inPages = uint64_t{m_file.pageSize} * m_stream.pageIndices.size();
  if (uint64_t{m_offset} + size >= inPages) throw pdb_recoverable_exception(kOutsideOfPages);
  if (FileBudget* const budget = m_file.budget()) budget->copied.spend(uint64_t{size} + kCopySlack);
  uint8_t* copy = static_cast<uint8_t*>(std::malloc(size_t{size} + kCopySlack));
  if (copy == nullptr) throw std::bad_alloc();
  DataPtr<uint8_t> owner(copy, true);  // releases the block when a seek throws
  copyAcrossRuns(copy, size);
  std::memset(copy + size, 0, kCopySlack);
  owner.isAllocated = false;
  return copy;
}

void StreamReader::copyAcrossRuns(uint8_t* to, uint32_t size) {
  while (size != 0) {
    if (available() == 0) seekToOtherRun(m_offset);
    const uint32_t piece = available() > size ? size : static_cast<uint32_t>(available());
    std::memcpy(to, m_data, piece);
    to += piece;
    size -= piece;
    seek(m_offset + piece);
  }
}

DataPtr<char> StreamReader::readString() { return read<char>(measureString()); }

// Length of the string at the position, including its terminator; the position does not change.
uint32_t StreamReader::measureString() {
  const uint32_t start = m_offset;
  const uint8_t* p = m_data;
  uint32_t length = 0;
  for (;;) {
    const size_t left = static_cast<size_t>(m_seqPageEnd - p);
    const void* nul = std::memchr(p, '\0', left);
    if (nul != nullptr) {
      length += static_cast<uint32_t>(static_cast<const uint8_t*>(nul) - p) + 1;
      break;
    }
    length += static_cast<uint32_t>(left);
    if (FileBudget* const budget = m_file.budget()) budget->visited.spend(left);
    // Seek to one past the first byte of the next run and look back at that byte. `m_offset`
    // changes with each seek, so from the second crossing on this seeks too far. Existing symbol
    // files have that result.
    seek(length + m_offset + 1);
    length += 1;
    p = m_data;
    if (p == m_file.base) throw pdb_recoverable_exception(kOutsideOfPages);
    if (p[-1] == '\0') break;
  }
  if (FileBudget* const budget = m_file.budget()) budget->visited.spend(length);
  if (m_offset != start) seek(start);
  return length;
}

}  // namespace symforge_internal
