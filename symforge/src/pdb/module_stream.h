// ModuleStream: the stream of one module (compiland): a signature, CodeView symbols, old line data,
// which is skipped, and C13 subsections (lines, file checksums, inlinee lines).
//
//   module.forEachSymbol(
//       kinds, [](const SymbolHeader& symbol, StreamReader& body, uint32_t offset) {...});
//   module.readModule(kLinesSubsection, [](StreamReader& payload, uint32_t end) {...});

#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "symforge/src/PDBHeaders.h"
#include "symforge/src/msf/msf_file.h"
#include "symforge/src/pdb/codeview.h"

namespace symforge_internal {

// Visitor of a subsection: the reader is at the first payload byte, `end` is the stream offset one
// past the last. It can leave the reader at any position.
using ModuleReadCB = std::function<void(StreamReader& payload, uint32_t end)>;

// Offsets are bytes from the start of the module's stream. Every operation opens the stream anew
// and throws std::out_of_range when it does not exist, pdb_exception for a wrong signature or
// damage, pdb_recoverable_exception when the pages end too early, LimitExceeded when the modules of
// the file are visited again and again.
class ModuleStream {
 public:
  // `info`: the module's record in the DBI stream, and `name` what follows it. `file` must outlive
  // this.
  ModuleStream(const MsfFile& file, DataPtr<DBIModuleInfo>&& info, DataPtr<char>&& name)
      : m_file(&file), m_info(std::move(info)), m_name(std::move(name)) {}

  // The path of the object file that the module was made of, NUL-terminated.
  const char* name() const { return m_name.data; }

  // A negative number means damage, not a stream.
  bool hasStream() const { return m_info->stream >= 0; }
  uint16_t streamNumber() const { return static_cast<uint16_t>(m_info->stream); }

  // Bytes of the symbols, as the module's record has it.
  uint32_t symbolBytes() const { return m_info->cbSyms; }

  // What is left of the limits of the module's file.
  FileBudget& budget() const { return m_file->budget(); }

  // Calls visit(const SymbolHeader&, StreamReader& body, uint32_t offset) for each symbol record of
  // one of `kinds`, and for some others, in stream order: the header is at `offset`, `body` is at
  // the byte after it and can be left at any position. Stops at a symbol of kind 0.
  template <typename Visitor>
  void forEachSymbol(SymbolKinds kinds, Visitor&& visit) const {
    StreamReader reader = openModule();
    // cbSyms counts the signature too, so the limit is 4 bytes past the symbols; in sound files a
    // symbol of kind 0 or the last one ends the walk.
    budget().symbols.spend(std::min<uint64_t>(m_info->cbSyms, streamBytes()));
    const uint32_t end = m_info->cbSyms + reader.getOffset();
    while (reader.getOffset() < end && skipOthers(reader, end, kinds)) {
      const DataPtr<SymbolHeader> header = reader.read<SymbolHeader>();
      const uint32_t body = reader.getOffset();
      const uint32_t next = body - sizeof(SymbolHeader::type) + header->size;
      if (header->type == S_NONE) return;
      visit(*header, reader, body - uint32_t{sizeof(SymbolHeader)});
      if (next >= end) return;
      reader.seek(next);
    }
  }

  // Calls `visit` for each subsection of a kind, in stream order. Throws pdb_exception for a
  // subsection that leaves the stream's pages, and for a cycle; the subsections before the damage
  // have then been visited.
  void readModule(int32_t kind, const ModuleReadCB& visit) const;

 private:
  StreamReader openModule() const;
  static bool skipOthers(StreamReader& reader, uint32_t end, const SymbolKinds& kinds);
  // Bytes of the stream's pages.
  uint64_t streamBytes() const;

  const MsfFile* m_file;
  DataPtr<DBIModuleInfo> m_info;
  DataPtr<char> m_name;
};

// The modules of a PDB that have a stream, in the order of the DBI stream.
using ModuleStreams = std::vector<ModuleStream>;

// How many functions and entries of inline sites (a beginning or an end) to reserve memory for
// before the symbols of some modules are read: more than compilers write, as memory that is not
// used costs nothing.
struct SymbolRoom {
  size_t functions = 0;
  size_t siteEntries = 0;
};
SymbolRoom roomForSymbols(std::span<const ModuleStream> modules);

}  // namespace symforge_internal
