#include "symforge/src/pdb/dbi_stream.h"

#include <utility>

namespace symforge_internal {

namespace {

const StreamPair& debugInfoStream(const MsfFile& file) {
  const StreamPair& stream = file.getStream(DbiStream::kStream);
  if (stream.size == 0) throw pdb_exception("Invalid DebugInfo stream");
  return stream;
}

}  // namespace

DbiStream::DbiStream(const MsfFile& file)
    : m_file(file),
      m_reader(debugInfoStream(file), file.pages()),
      m_header(m_reader.read<DBIHeader>()) {}

// The list ends with the first record that begins at or beyond its end.
ModuleStreams DbiStream::readModuleList() {
  ModuleStreams modules;
  const uint32_t endOffset = m_header->moduleSize + m_reader.getOffset();
  while (m_reader.getOffset() < endOffset) {
    DataPtr<DBIModuleInfo> info = m_reader.read<DBIModuleInfo>();
    DataPtr<char> name = m_reader.readString();
    m_reader.readString();  // object file
    if (static_cast<uint16_t>(info->stream) != kNoStream) {
      modules.emplace_back(m_file, std::move(info), std::move(name));
    }
    m_reader.align(4);
  }
  return modules;
}

// The size of the debug header in the DBI header is not used, and mfcIndex is no size.
DataPtr<DBIDebugHeader> DbiStream::readDebugHeader() {
  const DBIHeader& header = *m_header;
  m_reader.seek(m_reader.getOffset() + header.secConSize + header.secMapSize + header.fileInfoSize +
                header.srcModuleSize + header.ecInfoSize);
  return m_reader.read<DBIDebugHeader>();
}

// The number of the stream is used only here. Both 0 and "no such stream" are accepted.
bool hasTokenMap(const DBIDebugHeader& debugHeader) {
  const uint16_t map = debugHeader.tokenRidMap;
  return map != 0 && map != kNoStream;
}

}  // namespace symforge_internal
