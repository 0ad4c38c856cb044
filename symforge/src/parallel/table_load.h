// TableLoad: the tables that both modes begin with, which do not depend on each other: the type and
// id records and the public functions.

#pragma once

#include <cstdint>
#include <optional>

#include "symforge/src/msf/msf_file.h"
#include "symforge/src/parallel/file_workers.h"
#include "symforge/src/pdb/public_functions.h"
#include "symforge/src/pdb/section_map.h"
#include "symforge/src/pdb/type_table.h"

namespace symforge_internal {

// Workers, if there are any, begin at once. Otherwise, or where they fail, each operation loads its
// tables itself. So everything is as if it were read at the time of these operations.
class TableLoad {
 public:
  // All must outlive this; `pool` null: no workers.
  TableLoad(const MsfFile& file, uint16_t symbolRecords, const SectionMap& sections,
            TypeDialect dialect, WorkerPool* pool);

  // Throw what loadTypeStream() and PublicFunctions::getGlobalFunctions() throw. Each to be called
  // once, before what it loads is used.
  void loadTypes();
  void loadPublics();

  TypeTable types;
  TypeTable ids;
  PublicFunctions publics;

 private:
  bool loadedByWorkers();

  const MsfFile& m_file;
  const uint16_t m_symbolRecords;
  const SectionMap& m_sections;
  const TypeDialect m_dialect;
  WorkQueue m_queue{3};
  std::optional<FileAttempt> m_attempt;
  bool m_loaded = false;
};

}  // namespace symforge_internal
