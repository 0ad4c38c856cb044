// The DBI stream: the machine, the list of modules, and at its end the numbers of other streams.

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

const StreamPair& PDBParser::debugInfoStream() const {
  const StreamPair& stream = getStream(DebugInfo);
  if (stream.size == 0) throw pdb_exception("Invalid DebugInfo stream");
  return stream;
}

// `reader` stands behind the header, and is left behind the last module. The list is taken to end
// with the first record that begins at or beyond its end.
PDBParser::Modules PDBParser::readModuleList(StreamReader& reader, const DBIHeader& header) const {
  Modules modules;
  const uint32_t endOffset = header.moduleSize + reader.getOffset();
  while (reader.getOffset() < endOffset) {
    DataPtr<DBIModuleInfo> info = reader.read<DBIModuleInfo>();
    reader.readString();  // module name
    reader.readString();  // object file
    if (static_cast<uint16_t>(info->stream) != kNoStream)
      modules.push_back({std::move(info), SrcFileIndex()});
    reader.align(4);
  }
  return modules;
}

// `reader` stands behind the module list. The size of the debug header that `header` gives is not
// looked at, and mfcIndex is no size.
DataPtr<DBIDebugHeader> PDBParser::readDebugHeader(StreamReader& reader,
                                                   const DBIHeader& header) const {
  reader.seek(reader.getOffset() + header.secConSize + header.secMapSize + header.fileInfoSize +
              header.srcModuleSize + header.ecInfoSize);
  return reader.read<DBIDebugHeader>();
}

}  // namespace symforge_internal
