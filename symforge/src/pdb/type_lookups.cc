// What the parser asks of the type and id records: that they are there, names, places of inlinees.

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

void PDBParser::loadTypeStream(KnownStreams type_stream_id, TypeTable& map, bool required) {
  const StreamPair& stream = getStream(type_stream_id);
  if (stream.size == 0) {
    if (required) throw pdb_exception("Invalid type info stream");
    return;
  }
  map.load(stream, m_file.pages());
}

bool PDBParser::stringizeType(uint32_t type, std::string& output, uint32_t flags, bool info) {
  return m_typeNames.append(type, output, flags, info);
}

void PDBParser::locateType(uint32_t inlinee, uint32_t& file_id, uint32_t& line_offset) const {
  const InlineeLine* line = inlineeLineMap.find(inlinee);
  file_id = line != nullptr ? line->file_id : 0;
  line_offset = line != nullptr ? line->offset : 0;
}

}  // namespace symforge_internal
