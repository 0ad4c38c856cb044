#include "symforge/src/pdb/info_stream.h"

#include <cstdio>
#include <utility>

#include "base/limits.h"
#include "symforge/src/PDBHeaders.h"
#include "symforge/src/pdb/debug_id.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

// The sets in the table of named streams: a word count, and that many words of bits.
constexpr uint32_t kWordBytes = sizeof(le_uint32);
constexpr uint32_t kWordBits = 32;

// The stream offset after the set that begins at `set`. It wraps.
uint32_t endOfSet(uint32_t set, uint32_t words) { return set + kWordBytes + words * kWordBytes; }

// The bits of the table of named streams that mark used slots. Their number of words is that of the
// words that `slots` fills completely, but at least one; slots after them are tested in the bytes
// that follow in the stream.
class PresentBits {
 public:
  PresentBits(StreamReader& reader, uint32_t slots)
      : m_words(slots / kWordBits == 0 ? 1 : slots / kWordBits),
        m_bits(reader.read<le_uint32>(m_words * kWordBytes)) {
    if (slots > m_words * kWordBits) m_next = *reader.read<le_uint32>();
  }

  bool operator[](uint32_t slot) const {
    const uint32_t at = slot / kWordBits;
    const uint32_t word = at < m_words ? uint32_t{m_bits.data[at]} : m_next;
    return (word >> (slot % kWordBits) & 1) != 0;
  }

 private:
  const uint32_t m_words;
  const DataPtr<le_uint32> m_bits;
  uint32_t m_next = 0;
};

}  // namespace

InfoStream::InfoStream(const StreamPair& stream, const MsfPages& pages)
    : m_stream(stream), m_pages(pages), m_reader(stream, pages) {}

std::string InfoStream::readDebugId(uint32_t age) {
  const DataPtr<NameIndexHeader> header = m_reader.read<NameIndexHeader>();
  m_nameBytes = header->names;
  return formatDebugId(header->guid, age);
}

// The table follows the name buffer: its size, the number of slots, the set of present slots, the
// set of deleted slots, and for each present slot an entry. Of entries with one name the first is
// used.
bool InfoStream::readNamedStreams() {
  const uint32_t nameStart = m_reader.getOffset();
  StreamReader table(m_stream, m_pages);
  table.seek(nameStart + m_nameBytes);
  table.read<le_uint32>();
  const uint32_t slots = *table.read<le_uint32>();
  const uint32_t presentSet = table.getOffset();
  const uint32_t presentWords = *table.read<le_uint32>();
  if (slots / kWordBits > presentWords) {
    std::fputs("Invalid name index\n", stderr);
    return false;
  }
  const PresentBits present(table, slots);
  table.seek(endOfSet(presentSet, presentWords));
  const uint32_t deletedSet = table.getOffset();
  const uint32_t deletedWords = *table.read<le_uint32>();
  if (deletedWords != 0)
    std::fputs("Warning: deleted names bitset is not empty, unsupported\n", stderr);
  table.seek(endOfSet(deletedSet, deletedWords));

  for (uint32_t slot = 0; slot < slots; ++slot) {
    if (!present[slot]) continue;
    // Each name is that of another stream.
    if (m_nameIndices.size() == limits::kStreams) throw LimitExceeded("Too many named streams");
    const DataPtr<StringVal> entry = table.read<StringVal>();
    m_reader.seek(nameStart + entry->id);
    std::string name = m_reader.readString().data;  // a copy: the mapping is not to be written to
    if (FileBudget* const budget = m_pages.budget()) budget->copied.spend(name.size());
    strupper(name.data());
    m_nameIndices.emplace(std::move(name), static_cast<int>(uint32_t{entry->stream}));
  }
  m_tableEnd = table.getOffset();
  return true;
}

// The features follow a number that is not used here.
bool InfoStream::hasFeature(uint32_t feature) const {
  constexpr uint32_t kMaxFeatures = 64;
  try {
    StreamReader reader(m_stream, m_pages, m_tableEnd);
    reader.read<le_uint32>();
    for (uint32_t i = 0; i < kMaxFeatures && reader.getOffset() < m_stream.size; ++i) {
      if (*reader.read<le_uint32>() == feature) return true;
    }
  } catch (const pdb_exception&) {
    return false;  // ends too early
  }
  return false;
}

bool InfoStream::findStream(const std::string& name, size_t& number) const {
  const auto found = m_nameIndices.find(name);
  if (found == m_nameIndices.end()) return false;
  number = static_cast<size_t>(found->second);
  return true;
}

}  // namespace symforge_internal
