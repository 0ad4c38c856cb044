#include <cstdlib>
#include <cstring>

#include "symforge/src/PDBParser.h"

namespace google_breakpad {

void PDBParser::loadTypeStream(KnownStreams type_stream_id, TypeTable& map, bool required) {
  const StreamPair& stream = m_streams.at(type_stream_id);
  if (stream.size == 0) {
    if (required) throw pdb_exception("Invalid type info stream");
    return;
  }
  map.load(stream, m_file);
}

bool PDBParser::stringizeType(uint32_t type, std::string& output, uint32_t flags, bool info) {
  return m_typeNames.append(type, output, flags, info);
}

void PDBParser::locateType(uint32_t inlinee, uint32_t& file_id, uint32_t& line_offset) const {
  const InlineeLine* line = inlineeLineMap.find(inlinee);
  file_id = line != nullptr ? line->file_id : 0;
  line_offset = line != nullptr ? line->offset : 0;
}

// A decorated name ends in '@' and the bytes of its parameters: _name@12 is __stdcall; of
// @name@12, which is __fastcall, two of them are in registers.
bool PDBParser::updateParamSize(FunctionRecord& func, const Globals& globals) const {
  const PublicFunction* global = globals.find(func.offset);
  if (global == nullptr) return false;
  const char* name = global->name.data;
  if (name[0] != '@' && name[0] != '_') return false;
  const char* at = std::strrchr(name, '@');
  if (at == nullptr || at == name) return false;
  char* end;
  const long bytes = std::strtol(at + 1, &end, 10);
  if (*end != '\0') return false;
  constexpr long kInRegisters = 8;
  const long onStack = name[0] == '_' ? bytes : bytes > kInRegisters ? bytes - kInRegisters : 0;
  func.paramSize = static_cast<uint32_t>(onStack);
  return true;
}

}  // namespace google_breakpad
