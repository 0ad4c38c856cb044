// DbiStream: the debug information stream of a PDB: the machine, the list of modules, and at its
// end the numbers of other streams.

#pragma once

#include "symforge/src/PDBHeaders.h"
#include "symforge/src/pdb/module_stream.h"

namespace symforge_internal {

class DbiStream {
 public:
  // Number of the stream.
  static constexpr uint32_t kStream = 3;

  // Reads the header. `file` must outlive this. Throws std::out_of_range when there is no such
  // stream, pdb_exception when it is empty or too short.
  explicit DbiStream(const MsfFile& file);

  const DBIHeader& header() const { return *m_header; }

  // The parts after the header; call these once each, in this order. Both throw
  // pdb_recoverable_exception for a stream that ends too early.
  //
  // The modules that have a stream of their own; they refer to the file.
  ModuleStreams readModuleList();
  DataPtr<DBIDebugHeader> readDebugHeader();

 private:
  const MsfFile& m_file;
  StreamReader m_reader;
  DataPtr<DBIHeader> m_header;
};

// Whether the PDB has a map of metadata tokens: all or some of its code is managed.
bool hasTokenMap(const DBIDebugHeader& debugHeader);

// The message of default mode for such a PDB.
inline constexpr char kHasTokenMap[] = "Implement me...";

}  // namespace symforge_internal
