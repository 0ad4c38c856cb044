// What names a PDB and its parts: the stream directory, the debug identifier, the table of named
// streams.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "base/printable.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/msf/stream_directory.h"
#include "symforge/src/pdb/debug_id.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

constexpr mode_t kFolderMode = 0777;

bool hasValidSignature(const MMapWrapper& mapping) {
  static_assert(MMapWrapper::kGuardBytes >= sizeof(PDBHeader));
  if (std::memcmp(mapping.base(), validSignature, sizeof(PDBHeader::signature)) == 0) return true;
  std::fputs("Input file has an invalid signature\n", stderr);
  return false;
}

// A page size of 0 ends the process like the division that it leads to.
void refuseNoPageSize(uint32_t pageSize) {
  if (pageSize != 0) return;
  std::raise(SIGFPE);
  std::abort();
}

// The folders of a PDB in a symbol tree: ROOT/NAME/IDENTIFIER.
void makeTreeFolders(const char* root, std::string_view name, const std::string& id) {
  if (access(root, F_OK) != 0) mkdir(root, kFolderMode);
  const TreeFolders made = make_tree_folders(root, name, id, kFolderMode);
  if (made == TreeFolders::kMade) return;
  const int error = errno;
  const bool first = made == TreeFolders::kNoFileFolder;
  std::string folder = std::string(root).append("/").append(name);
  if (!first) folder.append("/").append(id);
  std::fprintf(stderr, "%s %s: %s\n", first ? "mkdir1" : "mkdir2", printable(folder).c_str(),
               std::strerror(error));
  std::exit(-1);
}

// The sets in the table of named streams: a word count, and that many words of bits.
constexpr uint32_t kWordBytes = sizeof(le_uint32);
constexpr uint32_t kWordBits = 32;

// The stream offset behind the set that begins at `set`. It wraps.
uint32_t behindSet(uint32_t set, uint32_t words) { return set + kWordBytes + words * kWordBytes; }

// The bits that tell which slots of the table of named streams hold an entry. The words that count
// are those that `slots` fills whole, but at least one; the slots behind them are tested on what
// follows in the stream.
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

void PDBParser::readRootStream(const char* sympath, bool* res) {
  *res = hasValidSignature(m_mapping);
  if (!*res) return;

  const PDBHeader* header = reinterpret_cast<const PDBHeader*>(m_mapping.base());
  m_file = {m_mapping.base(), m_mapping.length(), header->pageSize};
  refuseNoPageSize(m_file.pageSize);
  *res = readStreamDirectory(m_file, header->directorySize, m_streams);
  if (!*res) return;

  StreamReader info(m_streams[Streams], m_file);
  StreamReader debugInfo(debugInfoStream(), m_file);
  const DataPtr<DBIHeader> dbi = debugInfo.read<DBIHeader>();
  const DataPtr<NameIndexHeader> names = info.read<NameIndexHeader>();
  m_debug_id = formatDebugId(names->guid, dbi->age);
  if (sympath != nullptr) makeTreeFolders(sympath, lastComponent(m_pdb_file), m_debug_id);
  *res = readNamedStreams(info, names->names);
}

// `names` stands on the name buffer, which has `size` bytes; the table lies behind it: its size,
// the number of slots, the set of present slots, the set of deleted slots, and for each present
// slot an entry.
bool PDBParser::readNamedStreams(StreamReader& names, uint32_t size) {
  const uint32_t nameStart = names.getOffset();
  StreamReader table(m_streams[Streams], m_file);
  table.seek(nameStart + size);
  table.read<le_uint32>();
  const uint32_t slots = *table.read<le_uint32>();
  const uint32_t presentSet = table.getOffset();
  const uint32_t presentWords = *table.read<le_uint32>();
  if (slots / kWordBits > presentWords) {
    std::fputs("Invalid name index\n", stderr);
    return false;
  }
  const PresentBits present(table, slots);
  table.seek(behindSet(presentSet, presentWords));
  const uint32_t deletedSet = table.getOffset();
  const uint32_t deletedWords = *table.read<le_uint32>();
  if (deletedWords != 0)
    std::fputs("Warning: deleted names bitset is not empty, unsupported\n", stderr);
  table.seek(behindSet(deletedSet, deletedWords));

  for (uint32_t slot = 0; slot < slots; ++slot) {
    if (!present[slot]) continue;
    const DataPtr<StringVal> entry = table.read<StringVal>();
    names.seek(nameStart + entry->id);
    std::string name = names.readString().data;  // a copy: the mapping is not to be written to
    strupper(name.data());
    m_nameIndices.emplace(std::move(name), static_cast<int>(uint32_t{entry->stream}));
  }
  return true;
}

bool pdb_debug_id(const char* file, std::string& id) {
  PDBParser parser(/*with_inlines=*/false);
  TextBuffer unused;
  try {
    parser.load(file, nullptr, nullptr, unused);
  } catch (...) {
    return false;
  }
  if (parser.debug_id().empty()) return false;
  id = parser.debug_id();
  return true;
}

}  // namespace symforge_internal
