// Reading a stream of an MSF file: its page list, a cursor over it, and the handle that a read
// returns. Every read of a PDB goes through here.
//
// An MSF file is divided into pages; a stream is a list of page numbers that need not be adjacent.
// A read returns a pointer into the mapping if the bytes are in physically consecutive pages (a
// run), else a heap copy that the returned handle owns. The only limit of a reader is the end of
// its stream's last page: callers compare with the declared size of a stream.
//
// Nothing outside the mapping is ever read. Page numbers are checked against the file when a seek
// leaves the current run; the mapping is followed by zeroed guard bytes, so that reading past a
// damaged file's end (a string without terminator, a truncated number) finds zeros.
//
// Reading is limited for the file as a whole: what is copied, the strings, and the page lists that
// seeks walk are charged to the file's budget, and any operation here can throw LimitExceeded.
//
// Not for use by several threads at once; readers of one file are independent of each other.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "symforge/src/msf/file_budget.h"
#include "symforge/src/pdb_exception.h"

namespace symforge_internal {

// The mapped file: its first byte, its length and its page size, both in bytes. It is followed by
// MMapWrapper::kGuardBytes readable zero bytes.
struct MsfPages {
  const uint8_t* base = nullptr;
  size_t length = 0;
  uint32_t pageSize = 0;
  FileBudget* fileBudget = nullptr;  // null: no limits

  // What this thread spends from; null: no limits.
  FileBudget* budget() const { return ThreadBudget::of(fileBudget); }
};

// One stream: its length in bytes and the file page number of each of its pages, in stream order.
struct StreamPair {
  explicit StreamPair(uint32_t bytes) : size(bytes) {}

  uint32_t size;
  std::vector<uint32_t> pageIndices;
};

// The handle of a read: a pointer into the mapping, or a heap block from malloc that the handle
// owns. Handles that do not own stay valid as long as the mapping, so they may be kept in tables.
template <typename T>
class DataPtr {
 public:
  DataPtr() = default;
  DataPtr(const void* bytes, bool allocated)
      : data(static_cast<const T*>(bytes)), isAllocated(allocated) {}
  ~DataPtr() {
    if (isAllocated) std::free(const_cast<void*>(static_cast<const void*>(data)));
  }
  DataPtr(DataPtr&& other) noexcept { swap(other); }
  DataPtr& operator=(DataPtr&& other) noexcept {
    swap(other);
    return *this;
  }
  DataPtr(const DataPtr&) = delete;
  DataPtr& operator=(const DataPtr&) = delete;

  const T* operator->() const { return data; }
  const T& operator*() const { return *data; }

  const T* data = nullptr;
  bool isAllocated = false;

 private:
  void swap(DataPtr& other) noexcept {
    std::swap(data, other.data);
    std::swap(isAllocated, other.isAllocated);
  }
};

// A cursor over one stream. `stream` and `file` must outlive it.
class StreamReader {
 public:
  // Zero bytes after every heap copy, so that decoders can read a little past a record.
  static constexpr size_t kCopySlack = 16;

  // Throws pdb_recoverable_exception when the stream has no page at `offset`, as an empty one
  // always does.
  StreamReader(const StreamPair& stream, const MsfPages& file, uint32_t offset = 0)
      : m_stream(stream), m_file(file) {
    seek(offset);
  }

  // Moves to `offset` bytes from the stream's start. Throws pdb_recoverable_exception, with the
  // position unchanged, when the stream has no such page or the page is outside the file.
  void seek(uint32_t offset) {
    const uint32_t inRun = offset - m_runStart;
    if (inRun < m_runBytes) {
      m_data = m_runData + inRun;
      m_offset = offset;
    } else {
      seekToOtherRun(offset);
    }
  }

  // Reads `size` bytes, whatever T is; 0: sizeof(T). Throws pdb_recoverable_exception when they
  // exceed the stream's pages, and when a copied read ends exactly with the last page.
  template <typename T>
  DataPtr<T> read(uint32_t size = 0) {
    if (size == 0) size = sizeof(T);
    if (size > available()) return DataPtr<T>(readAcrossRuns(size), true);
    const uint8_t* at = m_data;
    m_data += size;
    m_offset += size;
    return DataPtr<T>(at, false);
  }

  // Reads a NUL-terminated string with its terminator. Throws like read. The length of a string
  // that crosses more than one end of a run is wrong: the result is truncated, or includes
  // following bytes of the stream, but is always terminated.
  DataPtr<char> readString();

  // Moves forward to the next multiple of `alignment` (a power of two) of the stream offset.
  void align(uint32_t alignment) {
    const uint32_t past = m_offset & (alignment - 1);
    if (past != 0) seek(m_offset + alignment - past);
  }

  // Whether the stream has a page for `offset`; the stream's size is ignored.
  bool isValidOffset(uint32_t offset) const {
    return offset / m_file.pageSize < m_stream.pageIndices.size();
  }

  uint32_t getOffset() const { return m_offset; }
  const uint8_t* getData() const { return m_data; }

  // Bytes from the position to the end of the run of consecutive pages.
  size_t available() const { return static_cast<size_t>(m_seqPageEnd - m_data); }

 private:
  void seekToOtherRun(uint32_t offset);
  void* readAcrossRuns(uint32_t size);
  void copyAcrossRuns(uint8_t* to, uint32_t size);
  uint32_t measureString();

  const StreamPair& m_stream;
  const MsfPages& m_file;
  const uint8_t* m_data = nullptr;        // at the position
  const uint8_t* m_seqPageEnd = nullptr;  // one past the run
  uint32_t m_offset = 0;                  // position in the stream
  // The run: bytes, address, stream offset. As its pages are contiguous in the file, a seek inside
  // it is one addition.
  uint64_t m_runBytes = 0;
  const uint8_t* m_runData = nullptr;
  uint32_t m_runStart = 0;
};

}  // namespace symforge_internal
