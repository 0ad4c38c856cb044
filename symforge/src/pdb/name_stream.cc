#include "symforge/src/pdb/name_stream.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/mapped_file.h"
#include "symforge/src/PDBHeaders.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kNamesSignature = 0xEFFEEFFE;
constexpr uint32_t kNamesVersion = 1;
constexpr uint32_t kStringArea = sizeof(NameStreamHeader);
constexpr int64_t kWord = sizeof(le_uint32);

[[noreturn]] void throwInvalid() { throw pdb_exception("Invalid name stream"); }

// The page begins in the file and ends in the file or its zeroed guard.
bool isReadable(uint64_t page, const MsfPages& file) {
  const uint64_t start = page * file.pageSize;
  return start < file.length && start + file.pageSize <= file.length + MMapWrapper::kGuardBytes;
}

bool isContiguous(const std::vector<uint32_t>& pages) {
  for (size_t i = 1; i < pages.size(); ++i)
    if (pages[i] != pages[0] + i) return false;
  return true;
}

}  // namespace

void NameStream::load(const StreamPair& stream, const MsfPages& file) {
  m_budget = file.fileBudget;
  gather(stream, file);
  if (wordAt(offsetof(NameStreamHeader, sig)) != kNamesSignature ||
      wordAt(offsetof(NameStreamHeader, version)) != kNamesVersion)
    throwInvalid();
  const int32_t area = static_cast<int32_t>(wordAt(offsetof(NameStreamHeader, offset)));
  index(int64_t{kStringArea} + area);
}

// Makes the stream contiguous: in the mapping if its pages are consecutive there, else as a copy. A
// stream without pages fails the range check.
void NameStream::gather(const StreamPair& stream, const MsfPages& file) {
  const std::vector<uint32_t>& pages = stream.pageIndices;
  const uint64_t pageSize = file.pageSize;
  const size_t last = pages.size() - 1;
  const uint64_t lastPage = pages[last];
  const uint64_t lastBytes = std::min(stream.size - last * pageSize, pageSize);
  for (const uint32_t page : pages)
    if (!isReadable(page, file)) throwInvalid();
  m_size = stream.size;
  if (isContiguous(pages)) {
    m_bytes = reinterpret_cast<const char*>(file.base + pages[0] * pageSize);
    return;
  }
  m_copy.reset(new char[m_size]);
  for (size_t i = 0; i < last; ++i)
    std::memcpy(m_copy.get() + i * pageSize, file.base + pages[i] * pageSize, pageSize);
  std::memcpy(m_copy.get() + last * pageSize, file.base + lastPage * pageSize, lastBytes);
  m_bytes = m_copy.get();
}

uint32_t NameStream::wordAt(int64_t offset) const {
  if (offset < 0 || offset + kWord > int64_t{m_size}) throwInvalid();
  le_uint32 word;
  std::memcpy(&word, m_bytes + offset, sizeof(word));
  return word;
}

// Records which offsets have a name. `buckets`: stream offset of the bucket count.
void NameStream::index(int64_t buckets) {
  const uint32_t count = wordAt(buckets);
  if (count == 0) return;
  wordAt(buckets + kWord * count);  // reads the last one: all are in the stream
  m_named.resize(m_size);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t offset = wordAt(buckets + kWord + kWord * i);
    if (offset == 0) continue;
    if (offset < m_size) {
      m_named[offset] = true;
    } else {
      m_namedBeyond.push_back(offset);
    }
  }
  std::sort(m_namedBeyond.begin(), m_namedBeyond.end());
}

bool NameStream::find(uint32_t offset, std::string_view& name) const {
  if (offset >= m_named.size()) {
    if (std::binary_search(m_namedBeyond.begin(), m_namedBeyond.end(), offset)) throwInvalid();
    return false;
  }
  if (!m_named[offset]) return false;
  const uint64_t start = uint64_t{kStringArea} + offset;
  if (start >= m_size) throwInvalid();
  const char* text = m_bytes + start;
  const void* nul = std::memchr(text, '\0', m_size - start);
  if (nul == nullptr) throwInvalid();
  name = std::string_view(text, static_cast<size_t>(static_cast<const char*>(nul) - text));
  FileBudget* const budget = ThreadBudget::of(m_budget);
  if (budget != nullptr) budget->visited.spend(name.size());
  return true;
}

void loadNameStream(const MsfFile& file, const InfoStream& info, const std::string& pdb,
                    NameStream& names) {
  size_t number;
  if (!info.findStream("/NAMES", number)) {
    std::fprintf(stderr, "Warning: Could not find /NAMES stream: %s\n", pdb.c_str());
    return;
  }
  names.load(file.getStream(number), file.pages());
}

}  // namespace symforge_internal
