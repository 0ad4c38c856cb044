#include "symforge/src/standard/module_inlinees.h"

#include <stdexcept>

namespace symforge_internal {

namespace {

enum InlineeTable : uint32_t { kPlain = 0, kWithExtraFiles = 1 };

void skipExtraFiles(StreamReader& reader, uint32_t end) {
  const uint64_t next =
      uint64_t{*reader.read<le_uint32>()} * sizeof(le_uint32) + reader.getOffset();
  if (next > end) throw pdb_recoverable_exception("Invalid inlinee lines");
  reader.seek(static_cast<uint32_t>(next));
}

}  // namespace

void ModuleInlinees::read(uint32_t module) {
  m_read[module] = 1;
  auto& table = m_tables[module];
  try {
    m_modules[module].readModule(kInlineeLinesSubsection, [&](StreamReader& reader, uint32_t end) {
      const uint32_t kind = *reader.read<le_uint32>();
      if (kind != kPlain && kind != kWithExtraFiles) return;
      while (reader.getOffset() < end) {
        const DataPtr<CV_TagInlineeSourceLine> entry = reader.read<CV_TagInlineeSourceLine>();
        if (kind == kWithExtraFiles) skipExtraFiles(reader, end);
        table.add({entry->inlinee, entry->file_id, entry->source_line});
      }
    });
  } catch (const pdb_exception&) {
    // The entries so far are kept.
  }
  table.seal();
  table.shrink_to_fit();
}

}  // namespace symforge_internal
