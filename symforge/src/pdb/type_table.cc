#include "symforge/src/pdb/type_table.h"

#include <algorithm>
#include <cstring>

#include "symforge/src/pdb/leaf_traits.h"

namespace symforge_internal {

namespace {

// Bytes by which a number that begins with `word` is longer than the short form, which is the word
// itself.
uint32_t extraNumberBytes(uint16_t word) {
  switch (word) {
    case LEAF::LF_CHAR:
      return 1;
    case LEAF::LF_SHORT:
    case LEAF::LF_USHORT:
      return 2;
    case LEAF::LF_LONG:
    case LEAF::LF_ULONG:
      return 4;
    case LEAF::LF_QUADWORD:
    case LEAF::LF_UQUADWORD:
      return 8;
    default:
      return 0;
  }
}

// A read of no bytes takes one.
uint32_t bytesRead(uint32_t size) { return size == 0 ? 1 : size; }

// Bytes of an argument list of `count` types; 32 bits wide, it wraps.
uint32_t argumentListBytes(uint32_t count) { return bytesRead(count * 4 + sizeof(LeafArgList)); }

// Bytes of a number, all that the record has after the leaf; wraps for a record of one byte.
uint32_t numericBytes(uint16_t length) {
  return bytesRead(uint32_t{length} - sizeof(TypeRecord::leafType));
}

// Whether the `count` bytes before a multiple of 4 are padding.
bool isFill(const uint8_t* bytes, uint32_t count) {
  bool zero = true;
  bool pads = true;
  for (uint32_t i = 0; i < count; ++i) {
    zero = zero && bytes[i] == 0;
    pads = pads && bytes[i] == 0xF0 + (count - i);
  }
  return zero || pads;
}

}  // namespace

void TypeTable::load(const StreamPair& stream, const MsfPages& file) {
  m_stream = &stream;
  m_file = &file;
  StreamReader reader(stream, file);
  const DataPtr<TypeInfoHeader> header = reader.read<TypeInfoHeader>();
  m_min = header->min;
  const uint32_t max = header->max;
  if (m_min >= max) return;
  // Cap the header's count by what the file can hold.
  const size_t most = std::min<size_t>(max - m_min, file.length / sizeof(TypeRecord));
  m_index->offsets.reserve(most);
  m_index->functions.reserve(most);

  // The hardware prefetcher stops at page boundaries; prefetch by hand.
  constexpr size_t kReadAhead = 1024;
  uint32_t next = reader.getOffset();
  for (uint32_t index = m_min; index != max; ++index) {
    next = skipFill(reader, next);
    const RecordHeader head = headAt(next);
    __builtin_prefetch(m_index->runs.back().data + (next - m_index->runs.back().start) +
                       kReadAhead);
    // All further indices would refer to this same record.
    if (head.length == 0 || head.leaf == 0) break;
    addRecord(next, head);
    next += sizeof(head.length) + head.length;
  }
}

const LeafTraits& TypeTable::traitsFor(uint16_t leaf) const {
  const LeafTraits& traits = traitsOf(leaf);
  return traits.standardOnly && m_dialect == TypeDialect::kDefault ? traitsOf(0) : traits;
}

uint32_t TypeTable::nameOffset(const LeafTraits& traits, uint32_t payload) const {
  const uint32_t shortForm = payload + traits.name;
  if (m_dialect == TypeDialect::kDefault || !traits.hasSize()) return shortForm;
  return shortForm + extraNumberBytes(wordAt(shortForm - sizeof(le_uint16)));
}

// Validates a record by decoding it, then adds it to the index.
void TypeTable::addRecord(uint32_t offset, const RecordHeader& head) {
  const LeafTraits& traits = traitsFor(head.leaf);
  const bool kept = traits.kept();
  TypeInfo info;
  if (kept && !decodeInRun(m_index->runs.back(), offset, head, traits, info))
    decodeAcrossRuns(offset, info);
  if (head.leaf == LEAF::LF_POINTER) {
    const auto* pointer = reinterpret_cast<const LeafPointer*>(info.data.data);
    if (pointer->mode() > LeafPointer::kLastMode) m_hasUnknownPointers = true;
  }
  m_index->offsets.push_back(kept ? offset : 0);
  m_index->functions.push_back(traits.isFunction);
}

// From the end of a record to the start of the next, which is then in the last run.
uint32_t TypeTable::skipFill(StreamReader& reader, uint32_t offset) {
  enterRunOf(reader, offset);
  const uint32_t count = (0 - offset) % 4;
  if (count == 0) return offset;
  const Run& run = m_index->runs.back();
  const bool fill =
      run.bytesAt(offset) >= count
          ? isFill(run.at(offset), count)
          : isFill(StreamReader(*m_stream, *m_file, offset).read<uint8_t>(count).data, count);
  if (!fill) return offset;
  enterRunOf(reader, offset + count);
  return offset + count;
}

// Makes the last run one that contains the offset.
void TypeTable::enterRunOf(StreamReader& reader, uint32_t offset) {
  if (!m_index->runs.empty() && m_index->runs.back().bytesAt(offset) != 0) return;
  reader.seek(offset);
  Run run{offset, reader.available(), 0, reader.getData()};
  const void* nul = memrchr(run.data, '\0', run.size);
  if (nul != nullptr) run.terminated = static_cast<const uint8_t*>(nul) - run.data + 1;
  m_index->runs.push_back(run);
}

TypeTable::RecordHeader TypeTable::headAt(uint32_t offset) const {
  const Run& run = m_index->runs.back();
  if (run.bytesAt(offset) >= sizeof(TypeRecord)) return headIn(run, offset);
  StreamReader reader(*m_stream, *m_file, offset);
  const DataPtr<TypeRecord> record = reader.read<TypeRecord>();
  return {record->length, record->leafType};
}

TypeTable::RecordHeader TypeTable::headIn(const Run& run, uint32_t offset) {
  const auto* record = reinterpret_cast<const TypeRecord*>(run.at(offset));
  return {record->length, record->leafType};
}

bool TypeTable::find(uint32_t type, TypeInfo& info) const {
  const uint32_t place = type - m_min;
  if (place >= m_index->offsets.size() || m_index->offsets[place] == 0) return false;
  const uint32_t offset = m_index->offsets[place];
  const Run& run = runOf(offset);
  if (run.bytesAt(offset) >= sizeof(TypeRecord)) {
    const RecordHeader head = headIn(run, offset);
    if (decodeInRun(run, offset, head, traitsOf(head.leaf), info)) return true;
  }
  decodeAcrossRuns(offset, info);
  return true;
}

// A run that contains the offset, or any other if the offset is before the known part of its run.
const TypeTable::Run& TypeTable::runOf(uint32_t offset) const {
  if (m_index->runs[m_lastRun].bytesAt(offset) == 0) {
    const auto above = std::upper_bound(m_index->runs.begin(), m_index->runs.end(), offset,
                                        [](uint32_t at, const Run& run) { return at < run.start; });
    m_lastRun =
        above == m_index->runs.begin() ? 0 : static_cast<size_t>(above - m_index->runs.begin()) - 1;
  }
  return m_index->runs[m_lastRun];
}

// Decodes a record in place. False, with `info` undefined, unless all of it is certain to be in the
// run.
bool TypeTable::decodeInRun(const Run& run, uint32_t offset, const RecordHeader& head,
                            const LeafTraits& traits, TypeInfo& info) const {
  const uint32_t payload = offset + sizeof(TypeRecord);
  const size_t left = run.bytesAt(payload);
  uint32_t bytes = traits.data;
  if (traits.text == LeafText::kArguments) {
    if (left < sizeof(LeafArgList)) return false;
    bytes = argumentListBytes(reinterpret_cast<const LeafArgList*>(run.at(payload))->count);
  } else if (traits.text == LeafText::kNumber) {
    bytes = numericBytes(head.length);
  }
  if (bytes > left) return false;
  info.data = DataPtr<unsigned char>(run.at(payload), false);
  info.readable = left;
  info.type = LEAF::Enum(head.leaf);
  info.offset = payload;
  if (!traits.hasName()) return true;

  if (traits.hasSize() && left < traits.name) return false;
  const uint32_t name = nameOffset(traits, payload);
  if (run.bytesAt(name) == 0 || name - run.start >= run.terminated) return false;
  info.name = DataPtr<char>(run.at(name), false);
  return true;
}

// Decodes a record by separate reads of its parts: across a page boundary their success depends on
// where each begins.
void TypeTable::decodeAcrossRuns(uint32_t offset, TypeInfo& info) const {
  StreamReader reader(*m_stream, *m_file, offset);
  const DataPtr<TypeRecord> record = reader.read<TypeRecord>();
  const LeafTraits& traits = traitsFor(record->leafType);
  const uint32_t payload = reader.getOffset();
  info.type = LEAF::Enum(uint16_t{record->leafType});
  info.offset = payload;

  uint32_t bytes = traits.data;
  if (traits.text == LeafText::kArguments) {
    bytes = argumentListBytes(StreamReader(*m_stream, *m_file, payload).read<le_uint32>().data[0]);
  } else if (traits.text == LeafText::kNumber) {
    bytes = numericBytes(record->length);
  }
  if (bytes != 0) {
    info.data = reader.read<unsigned char>(bytes);
    info.readable = bytes + (info.data.isAllocated ? StreamReader::kCopySlack : reader.available());
  }
  if (!traits.hasName()) return;
  // A name right after the fixed part is read from where that ended.
  const uint32_t name = nameOffset(traits, payload);
  if (name != payload + traits.data) reader.seek(name);
  info.name = reader.readString();
}

uint16_t TypeTable::wordAt(uint32_t offset) const {
  const Run& run = runOf(offset);
  if (run.bytesAt(offset) >= sizeof(le_uint16))
    return *reinterpret_cast<const le_uint16*>(run.at(offset));
  return *StreamReader(*m_stream, *m_file, offset).read<le_uint16>();
}

void loadTypeStream(const MsfFile& file, uint32_t stream, TypeTable& table, bool required) {
  const StreamPair& pair = file.getStream(stream);
  if (pair.size == 0) {
    if (required) throw pdb_exception("Invalid type info stream");
    return;
  }
  table.load(pair, file.pages());
}

}  // namespace symforge_internal
