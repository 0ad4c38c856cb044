// InfoStream: the PDB info stream: the identity of a PDB and its named streams.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

class InfoStream {
 public:
  // Number of the stream.
  static constexpr uint32_t kStream = 1;

  // `stream` and `pages` must outlive this. Throws pdb_recoverable_exception for a stream without
  // pages.
  InfoStream(const StreamPair& stream, const MsfPages& pages);

  // The contents of the stream; call these once each, in this order. Both throw
  // pdb_recoverable_exception for a stream that ends too early.
  //
  // The debug identifier, with the age of the DBI stream.
  std::string readDebugId(uint32_t age);
  // Reads the table of named streams. False for a damaged table, which is reported to standard
  // error.
  bool readNamedStreams();

  // Finds a stream by its name, in upper case except the first character, such as "/NAMES". False
  // when there is none. The number comes from the file: such a stream need not exist.
  bool findStream(const std::string& name, size_t& number) const;

  // Whether one of the numbers that end the stream, which name features of the file, is `feature`.
  // False for a stream that ends too early. To be called after readNamedStreams().
  bool hasFeature(uint32_t feature) const;

 private:
  const StreamPair& m_stream;
  const MsfPages& m_pages;
  StreamReader m_reader;
  uint32_t m_nameBytes = 0;  // of the name buffer, which follows the header
  uint32_t m_tableEnd = 0;   // offset in the stream
  std::map<std::string, int> m_nameIndices;
};

}  // namespace symforge_internal
