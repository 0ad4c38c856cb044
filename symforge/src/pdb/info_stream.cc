// What names a PDB and its parts: the stream directory, the debug identifier, the table of named
// streams.

#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "symforge/src/PDBParser.h"
#include "symforge/src/pdb/debug_id.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

constexpr mode_t kFolderMode = 0777;

// Makes a folder unless something of that name is there. Several processes may fill one tree, so
// one that another process makes in between is as good; a link that leads nowhere is not.
void makeFolder(const std::string& path, const char* step) {
  const auto exists = [&path] { return access(path.c_str(), F_OK) == 0; };
  if (exists() || mkdir(path.c_str(), kFolderMode) == 0) return;
  const int error = errno;
  if (error == EEXIST && exists()) return;
  std::fprintf(stderr, "%s %s: %s\n", step, path.c_str(), std::strerror(error));
  std::exit(-1);
}

// The folders of a PDB in a symbol tree: ROOT/NAME/IDENTIFIER.
void makeTreeFolders(const char* root, std::string_view name, const std::string& id) {
  if (access(root, F_OK) != 0) mkdir(root, kFolderMode);
  const std::string folder = std::string(root).append("/").append(name);
  makeFolder(folder, "mkdir1");
  makeFolder(folder + "/" + id, "mkdir2");
  // The name of the symbol file is made by exchanging an extension: there must be one.
  assert(name.find('.') != std::string::npos);
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
  *res = m_file.readDirectory();
  if (!*res) return;

  StreamReader info(m_file.streams()[Streams], m_file.pages());
  StreamReader debugInfo(debugInfoStream(), m_file.pages());
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
  StreamReader table(m_file.streams()[Streams], m_file.pages());
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
