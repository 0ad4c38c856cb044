#include "symforge/src/parallel/table_load.h"

namespace symforge_internal {

TableLoad::TableLoad(const MsfFile& file, uint16_t symbolRecords, const SectionMap& sections,
                     TypeDialect dialect, WorkerPool* pool)
    : types(dialect),
      ids(dialect),
      m_file(file),
      m_symbolRecords(symbolRecords),
      m_sections(sections),
      m_dialect(dialect) {
  if (pool == nullptr || !pool->usable()) return;
  m_attempt.emplace(*pool, file, [this](unsigned) {
    size_t table;
    while (m_queue.take(table)) {
      if (table == 0) publics.getGlobalFunctions(m_file, m_symbolRecords, m_sections);
      if (table == 1) loadTypeStream(m_file, kTypeInfoStream, types, /*required=*/true);
      if (table == 2) loadTypeStream(m_file, kIPIStream, ids, /*required=*/false);
    }
  });
}

// Removes what workers have left unfinished.
bool TableLoad::loadedByWorkers() {
  if (!m_attempt) return m_loaded;
  m_loaded = m_attempt->finish();
  m_attempt.reset();
  if (!m_loaded) {
    types = TypeTable(m_dialect);
    ids = TypeTable(m_dialect);
    publics = PublicFunctions();
  }
  return m_loaded;
}

void TableLoad::loadTypes() {
  if (loadedByWorkers()) return;
  loadTypeStream(m_file, kTypeInfoStream, types, /*required=*/true);
  loadTypeStream(m_file, kIPIStream, ids, /*required=*/false);
}

void TableLoad::loadPublics() {
  if (!loadedByWorkers()) publics.getGlobalFunctions(m_file, m_symbolRecords, m_sections);
}

}  // namespace symforge_internal
