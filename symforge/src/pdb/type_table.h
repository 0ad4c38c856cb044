// TypeTable: the type or id records of a PDB, by type index.
//
// Such a stream is a 56-byte header and records numbered without gaps from the header's `min`:
//
//   uint16 length (bytes after this field), uint16 leaf, the leaf's fields, fill
//
// The bytes between the end of a record and the next multiple of 4 are skipped if they are fill
// (all zero, or the pad bytes F3 F2 F1, whose low digit is the distance to the multiple of 4);
// otherwise the next record starts there. Linkers leave some id records unpadded.
//
// Loading walks all records once and keeps 4 bytes for each, the offset of its record in the
// stream, and a bit. Names are not read: the position of the last NUL in the surrounding pages
// proves that a name is terminated. Records are decoded on demand.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "symforge/src/msf/msf_file.h"
#include "symforge/src/pdb/leaf_traits.h"

namespace symforge_internal {

// How much of the type records is read and shown: what the default format shows, or all that the
// standard format has a name for.
enum class TypeDialect { kDefault, kStandard };

// A decoded record: the leaf's fixed part and the name, null where the leaf has none.
struct TypeInfo {
  DataPtr<unsigned char> data;
  // Bytes that can be read at `data`: at least the fixed part, more if the file has them.
  size_t readable = 0;
  DataPtr<char> name;  // NUL-terminated
  LEAF::Enum type = LEAF::Enum(0);
  uint32_t offset = 0;  // of the leaf's fields in the stream
};

class TypeTable {
 public:
  // kStandard has the ids of member functions and strings as well, and finds the name of a class
  // after a size of any form.
  // A copy of a loaded table shares its records; each copy is for one thread.
  explicit TypeTable(TypeDialect dialect = TypeDialect::kDefault)
      : m_dialect(dialect), m_index(std::make_shared<Index>()) {}

  // Indexes a stream that has bytes. `stream` and `file` must outlive the table. Throws
  // pdb_recoverable_exception when the records, or what is kept of them, exceed the stream's pages.
  // Call it once.
  void load(const StreamPair& stream, const MsfPages& file);

  // Decodes the record of an index. False when there is none, or none of a kind that has a text.
  bool find(uint32_t type, TypeInfo& info) const;

  // Whether the index is that of a function: LF_PROCEDURE, LF_MFUNCTION, LF_FUNC_ID, and
  // LF_MFUNC_ID where it is kept. Index 0 is "no type", also in a table that begins with it.
  // Reads no record.
  bool isFunction(uint32_t type) const {
    const uint32_t place = type - m_min;
    return type != 0 && place < m_index->functions.size() && m_index->functions[place];
  }

  // Prefetch the memory that find() will read: first the index, then, some hundred nanoseconds
  // later, the record.
  void prefetchIndex(uint32_t type) const {
    const uint32_t place = type - m_min;
    if (place < m_index->offsets.size()) __builtin_prefetch(&m_index->offsets[place]);
  }
  void prefetchRecord(uint32_t type) const {
    const uint32_t place = type - m_min;
    if (place >= m_index->offsets.size()) return;
    const uint32_t offset = m_index->offsets[place];
    const Run& run = m_index->runs[m_lastRun];
    if (run.bytesAt(offset) != 0) __builtin_prefetch(run.at(offset));
  }

  // What is left of the limits of the table's file; null before load() and without limits.
  FileBudget* budget() const { return m_file != nullptr ? m_file->budget() : nullptr; }

  // Whether there is a pointer record of an unknown kind; rendering it prints a warning.
  bool hasUnknownPointers() const { return m_hasUnknownPointers; }

  // The 16 bits at an offset of the stream. Throws like a read.
  uint16_t wordAt(uint32_t offset) const;

  // The number of indices that were walked, from the first one on.
  size_t size() const { return m_index->offsets.size(); }

 private:
  // A range of the stream whose pages are consecutive in the file.
  struct Run {
    uint32_t start = 0;     // offset in the stream
    size_t size = 0;        // bytes
    size_t terminated = 0;  // bytes up to the last NUL, that included
    const uint8_t* data = nullptr;

    // Bytes from `offset` to the end; 0 for an offset outside the run.
    size_t bytesAt(uint32_t offset) const {
      return offset >= start && offset - start < size ? size - (offset - start) : 0;
    }
    const uint8_t* at(uint32_t offset) const { return data + (offset - start); }
  };
  struct RecordHeader {
    uint16_t length;
    uint16_t leaf;
  };
  // Not changed once it is loaded.
  struct Index {
    std::vector<uint32_t> offsets;  // of each record in the stream; 0: no text
    std::vector<bool> functions;
    std::vector<Run> runs;  // in the order of the stream
  };

  const LeafTraits& traitsFor(uint16_t leaf) const;
  // Offset in the stream of the name of a record whose leaf's fields begin at `payload`.
  uint32_t nameOffset(const LeafTraits& traits, uint32_t payload) const;
  void addRecord(uint32_t offset, const RecordHeader& head);
  uint32_t skipFill(StreamReader& reader, uint32_t offset);
  void enterRunOf(StreamReader& reader, uint32_t offset);
  RecordHeader headAt(uint32_t offset) const;
  static RecordHeader headIn(const Run& run, uint32_t offset);
  const Run& runOf(uint32_t offset) const;
  bool decodeInRun(const Run& run, uint32_t offset, const RecordHeader& head,
                   const LeafTraits& traits, TypeInfo& info) const;
  void decodeAcrossRuns(uint32_t offset, TypeInfo& info) const;

  TypeDialect m_dialect;
  const StreamPair* m_stream = nullptr;
  const MsfPages* m_file = nullptr;
  uint32_t m_min = 0;
  bool m_hasUnknownPointers = false;
  std::shared_ptr<Index> m_index;  // of all copies
  mutable size_t m_lastRun = 0;
};

// Numbers of the type streams.
constexpr uint32_t kTypeInfoStream = 2;  // type records
constexpr uint32_t kIPIStream = 4;       // id records

// Loads a type stream of a PDB into `table`. A stream without bytes leaves it empty; when it is
// `required` that throws pdb_exception. Throws std::out_of_range for a stream that does not exist.
void loadTypeStream(const MsfFile& file, uint32_t stream, TypeTable& table, bool required);

}  // namespace symforge_internal
