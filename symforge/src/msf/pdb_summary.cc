#include "symforge/src/msf/pdb_summary.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "base/limits.h"
#include "symforge/src/PDBHeaders.h"
#include "symforge/src/pdb/codeview.h"
#include "symforge/src/pdb/dbi_stream.h"
#include "symforge/src/pdb/debug_id.h"
#include "symforge/src/pdb/foreign_types.h"
#include "symforge/src/pdb/info_stream.h"
#include "symforge/src/pdb/type_table.h"

namespace symforge_internal {

namespace {

constexpr uint64_t kWordBytes = sizeof(le_uint32);

uint64_t divided_up(uint64_t number, uint64_t by) { return (number + by - 1) / by; }

// Streams of a file whose directory is not loaded. Operations are false for what is not in the
// file.
class SparseReader {
 public:
  explicit SparseReader(int fd) : fd_(fd) {}

  bool open();

  bool stream_size(uint32_t stream, uint64_t& size) const;

  // Reads a record that is in one stream, also across its pages.
  template <typename Record>
  bool read(uint32_t stream, uint64_t offset, Record& record) const {
    return read_bytes(stream, offset, reinterpret_cast<char*>(&record), sizeof(record));
  }

 private:
  bool read_at(uint64_t position, void* to, size_t size) const {
    return position <= INT64_MAX - size &&
           pread(fd_, to, size, static_cast<off_t>(position)) == static_cast<ssize_t>(size);
  }
  bool word_at(uint64_t position, uint64_t& word) const {
    le_uint32 bytes;
    if (!read_at(position, &bytes, sizeof(bytes))) return false;
    word = bytes;
    return true;
  }
  bool in_page(uint64_t page, uint64_t word, uint64_t& value) const {
    return word_at(page * page_size_ + word * kWordBytes, value);
  }
  bool directory_word(uint64_t number, uint64_t& word) const;
  bool stream_page(uint32_t stream, uint64_t number, uint64_t& page) const;
  bool read_bytes(uint32_t stream, uint64_t offset, char* to, size_t size) const;

  const int fd_;
  uint64_t page_size_ = 0;
  uint64_t directory_words_ = 0;
  uint64_t streams_ = 0;
};

bool SparseReader::open() {
  PDBHeader header;
  if (!read_at(0, &header, sizeof(header))) return false;
  if (std::memcmp(header.signature, validSignature, sizeof(header.signature)) != 0) return false;
  page_size_ = header.pageSize;
  directory_words_ = header.directorySize / kWordBytes;
  return page_size_ >= kWordBytes && page_size_ % kWordBytes == 0 && directory_word(0, streams_) &&
         streams_ <= limits::kStreams;
}

// Word `number` of the directory, through an index page and a directory page.
bool SparseReader::directory_word(uint64_t number, uint64_t& word) const {
  if (number >= directory_words_) return false;
  const uint64_t in_a_page = page_size_ / kWordBytes;
  const uint64_t page = number / in_a_page;
  uint64_t index_page;
  uint64_t directory_page;
  return word_at(sizeof(PDBHeader) + page / in_a_page * kWordBytes, index_page) &&
         in_page(index_page, page % in_a_page, directory_page) &&
         in_page(directory_page, number % in_a_page, word);
}

bool SparseReader::stream_size(uint32_t stream, uint64_t& size) const {
  if (stream >= streams_ || !directory_word(1 + uint64_t{stream}, size)) return false;
  if (size == kDeletedStream) size = 0;
  return true;
}

// The file's number of page `number` of a stream. Streams with low numbers come first.
bool SparseReader::stream_page(uint32_t stream, uint64_t number, uint64_t& page) const {
  uint64_t at = 1 + streams_ + number;
  for (uint32_t before = 0; before < stream; ++before) {
    uint64_t size;
    if (!stream_size(before, size)) return false;
    at += divided_up(size, page_size_);
  }
  return directory_word(at, page);
}

bool SparseReader::read_bytes(uint32_t stream, uint64_t offset, char* to, size_t size) const {
  uint64_t in_stream;
  if (!stream_size(stream, in_stream) || offset + size > in_stream) return false;
  while (size != 0) {
    const uint64_t inner = offset % page_size_;
    const size_t piece = std::min<uint64_t>(size, page_size_ - inner);
    uint64_t page;
    if (!stream_page(stream, offset / page_size_, page)) return false;
    if (!read_at(page * page_size_ + inner, to, piece)) return false;
    to += piece;
    offset += piece;
    size -= piece;
  }
  return true;
}

// Whether the first type record names the file that has the types.
bool begins_with_type_server(const SparseReader& file) {
  TypeInfoHeader header;
  TypeRecord record;
  return file.read(kTypeInfoStream, 0, header) && header.min < header.max &&
         file.read(kTypeInfoStream, sizeof(header), record) && isTypeServer(record.leafType);
}

// Steps over the table of named streams: the number of names, that of slots, two sets of bits, and
// eight bytes for each name. One number and the features follow, to the end of the stream.
bool is_minimal(const SparseReader& file, uint64_t table) {
  constexpr uint64_t kMaxFeatures = 64;
  const auto word = [&file](uint64_t offset) {
    le_uint32 value;
    return file.read(InfoStream::kStream, offset, value) ? uint32_t{value} : 0;
  };
  uint64_t at = table + 2 * kWordBytes;
  for (int set = 0; set < 2; ++set) at += kWordBytes + kWordBytes * word(at);
  at += 2 * kWordBytes * word(table) + kWordBytes;
  uint64_t size;
  if (!file.stream_size(InfoStream::kStream, size)) return false;
  for (const uint64_t end = std::min(size, at + kMaxFeatures * kWordBytes); at < end;
       at += kWordBytes) {
    if (word(at) == kMinimalDebugInfo) return true;
  }
  return false;
}

}  // namespace

std::optional<PdbSummary> read_pdb_summary(int fd) {
  SparseReader file(fd);
  NameIndexHeader info;
  DBIHeader dbi;
  if (!file.open() || !file.read(InfoStream::kStream, 0, info) ||
      !file.read(DbiStream::kStream, 0, dbi)) {
    return std::nullopt;
  }
  PdbSummary summary;
  summary.debug_id = formatDebugId(info.guid, dbi.age);
  summary.machine = dbi.machine;
  summary.foreign_types =
      begins_with_type_server(file) || is_minimal(file, sizeof(info) + uint64_t{info.names});
  const uint64_t before_debug = sizeof(dbi) + uint64_t{dbi.moduleSize} + dbi.secConSize +
                                dbi.secMapSize + dbi.fileInfoSize + dbi.srcModuleSize +
                                dbi.ecInfoSize;
  DBIDebugHeader debug;
  summary.managed = file.read(DbiStream::kStream, before_debug, debug) && hasTokenMap(debug);
  return summary;
}

}  // namespace symforge_internal
