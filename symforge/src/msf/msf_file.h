// MsfFile: an MSF 7.00 file, the container of a PDB: its mapping and its numbered streams.
//
//   MsfFile file;
//   if (!file.Map("a.pdb") || !file.readDirectory()) ...
//   StreamReader reader(file.getStream(3), file.pages());

#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "base/mapped_file.h"
#include "symforge/src/StreamReader.h"

namespace symforge_internal {

// For one thread; open it once. Readers and what they return without a copy are valid until close()
// or the end of the object.
class MsfFile {
 public:
  MsfFile() = default;
  MsfFile(const MsfFile&) = delete;
  MsfFile& operator=(const MsfFile&) = delete;

  // Maps the file. False when it cannot be opened or mapped, also for an empty one.
  bool Map(const char* path) { return m_mapping.Map(path); }

  // Checks the signature of the mapped file and decodes its stream directory. False for a file of
  // another format and for a header that is cut short or has no page size, both reported to
  // standard error, and for a damaged directory; see readStreamDirectory() also for what it throws.
  bool readDirectory();

  // Bytes of the mapped file; 0 without one.
  size_t size() const { return m_mapping.length(); }

  // Releases the mapping.
  void close() { m_mapping.Unmap(); }
  // Releases the pages of one of `parts` parts of the mapping; see MMapWrapper::ReleasePart().
  void releasePart(size_t part, size_t parts) const { m_mapping.ReleasePart(part, parts); }

  // Throws std::out_of_range for a stream that does not exist.
  const StreamPair& getStream(size_t number) const { return m_streams.at(number); }
  const std::vector<StreamPair>& streams() const { return m_streams; }
  const MsfPages& pages() const { return m_pages; }

  // What this thread can spend of the file's limits; once the directory was read.
  FileBudget& budget() const { return *m_pages.budget(); }

 private:
  MMapWrapper m_mapping;
  std::optional<FileBudget> m_budget;
  MsfPages m_pages;
  std::vector<StreamPair> m_streams;
};

}  // namespace symforge_internal
