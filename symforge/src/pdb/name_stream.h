// NameStream: the global string table of a PDB, its stream named /NAMES.
//
// The stream is a 12-byte header (signature, version, size of the string area), the string area, a
// bucket count and the buckets, a uint32 each. Each bucket is the offset in the string area of one
// NUL-terminated string, or 0 when it is free. A name exists only when a bucket contains its
// offset.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "symforge/src/msf/msf_file.h"
#include "symforge/src/pdb/info_stream.h"

namespace symforge_internal {

// Names by their offset in the string area. An empty NameStream is valid: no name can be found. Its
// views are valid as long as it and the mapping are.
class NameStream {
 public:
  // Reads the whole stream. Throws pdb_exception for a bad header and for buckets or pages outside
  // the stream or the file. Call it once.
  void load(const StreamPair& stream, const MsfPages& file);

  // The name at `offset`. False when there is none. Throws pdb_exception when a bucket names the
  // offset but the bytes there are not a string of the stream.
  bool find(uint32_t offset, std::string_view& name) const;

 private:
  void gather(const StreamPair& stream, const MsfPages& file);
  uint32_t wordAt(int64_t offset) const;
  void index(int64_t buckets);

  const char* m_bytes = nullptr;  // the whole stream: in the mapping, or m_copy
  uint32_t m_size = 0;            // bytes
  FileBudget* m_budget = nullptr;
  std::unique_ptr<char[]> m_copy;
  std::vector<bool> m_named;            // by offset: whether a bucket contains it
  std::vector<uint32_t> m_namedBeyond;  // offsets in buckets that no string can have, sorted
};

// Loads the name stream of a PDB. Without one the table stays empty, which is reported to standard
// error; `pdb` is the path to report. Throws what NameStream::load() throws, and std::out_of_range
// for a stream that does not exist.
void loadNameStream(const MsfFile& file, const InfoStream& info, const std::string& pdb,
                    NameStream& names);

}  // namespace symforge_internal
