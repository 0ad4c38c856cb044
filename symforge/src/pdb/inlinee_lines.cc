#include "symforge/src/pdb/inlinee_lines.h"

namespace symforge_internal {

namespace {

enum InlineeTable : uint32_t { kPlain = 0, kWithExtraFiles = 1 };

void skipExtraFiles(StreamReader& reader) {
  const uint32_t count = *reader.read<le_uint32>();
  if (count != 0) reader.read<le_uint32>(count * static_cast<uint32_t>(sizeof(le_uint32)));
}

}  // namespace

// Payload: uint32 kind of table, then CV_TagInlineeSourceLine, each followed in a table of the
// second kind by a count and the further files of the function.
void InlineeLines::resolveInlineFunctions(const ModuleStream& module, size_t index,
                                          const SourceFiles& sources) {
  module.readModule(kInlineeLinesSubsection, [&](StreamReader& reader, uint32_t end) {
    const uint32_t kind = *reader.read<le_uint32>();
    if (kind != kPlain && kind != kWithExtraFiles) {
      throw pdb_exception("invalid inlinee line source code table");
    }
    while (reader.getOffset() < end) {
      const DataPtr<CV_TagInlineeSourceLine> entry = reader.read<CV_TagInlineeSourceLine>();
      if (kind == kWithExtraFiles) skipExtraFiles(reader);
      // Most functions are inlined in many modules; the first table that lists one is used.
      if (m_lines.contains(entry->inlinee)) continue;
      uint32_t file;
      if (!sources.find(index, entry->file_id, file)) continue;
      m_lines.insert(entry->inlinee, {file, entry->source_line});
    }
  });
}

void InlineeLines::locateType(uint32_t inlinee, uint32_t& file_id, uint32_t& line) const {
  const Line* found = m_lines.find(inlinee);
  file_id = found != nullptr ? found->file_id : 0;
  line = found != nullptr ? found->line : 0;
}

}  // namespace symforge_internal
