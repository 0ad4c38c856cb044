#include "symforge/src/pdb/module_stream.h"

#include <cstring>

#include "base/cycle_detector.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kModuleSignature = 4;
// What a visit of a subsection costs besides its bytes, in visited bytes.
constexpr uint64_t kVisitCost = 64;

[[noreturn]] void throwInvalidSubsection() {
  throw pdb_exception("Invalid subsection header detected");
}

}  // namespace

// A reader after the signature. A negative stream number becomes a huge index.
StreamReader ModuleStream::openModule() const {
  const auto number = static_cast<size_t>(int64_t{m_info->stream});
  StreamReader reader(m_file->getStream(number), m_file->pages());
  if (*reader.read<le_uint32>() != kModuleSignature) {
    throw pdb_exception("Invalid module stream signature");
  }
  return reader;
}

uint64_t ModuleStream::streamBytes() const {
  const auto number = static_cast<size_t>(int64_t{m_info->stream});
  return uint64_t{m_file->pages().pageSize} * m_file->getStream(number).pageIndices.size();
}

// Moves to a record of one of `kinds` or of kind 0, or to one that its run of pages does not
// include as a whole. False when the symbols end before that.
bool ModuleStream::skipOthers(StreamReader& reader, uint32_t end, const SymbolKinds& kinds) {
  const uint8_t* const begin = reader.getData();
  const size_t inRun = reader.available();
  const size_t left = end - reader.getOffset();
  size_t at = 0;
  while (at + sizeof(SymbolHeader) <= inRun) {
    SymbolHeader header;
    std::memcpy(&header, begin + at, sizeof(header));
    if (header.type == S_NONE || kinds.has(header.type)) break;
    const size_t next = at + sizeof(header.size) + header.size;
    if (next >= left) return false;
    if (next >= inRun) break;
    at = next;
  }
  reader.seek(reader.getOffset() + static_cast<uint32_t>(at));
  return true;
}

void ModuleStream::readModule(int32_t kind, const ModuleReadCB& visit) const {
  StreamReader reader = openModule();
  reader.seek(m_info->cbSyms + m_info->cbOldLines);
  const uint32_t endOffset = reader.getOffset() + m_info->cbLines;
  Allowance& visited = budget().visited;
  visited.spend(std::min<uint64_t>(m_info->cbLines, streamBytes()));
  CycleDetector<uint32_t> jumps;  // backwards, by sizes that wrap
  while (reader.getOffset() < endOffset) {
    const DataPtr<SubsectionHeader> header = reader.read<SubsectionHeader>();
    if (header->sig <= 0) continue;  // its payload is read as further headers
    const uint32_t payload = reader.getOffset();
    const uint32_t end = payload + header->size;
    if (!reader.isValidOffset(end)) throwInvalidSubsection();
    if (end < payload) {
      if (jumps.visit(end)) throwInvalidSubsection();
      visited.spend(payload - end);
    }
    if (header->sig == kind) {
      visited.spend(kVisitCost);
      visit(reader, end);
    }
    reader.seek(end);
    reader.align(4);
  }
}

// Large programs have 900 to 1100 bytes for each function and 60 to 170 for each entry of a site.
SymbolRoom roomForSymbols(std::span<const ModuleStream> modules) {
  constexpr uint64_t kBytesOfFunction = 512;
  constexpr uint64_t kBytesOfSiteEntry = 48;
  if (modules.empty()) return {};
  uint64_t bytes = 0;
  for (const ModuleStream& module : modules) bytes += module.symbolBytes();
  bytes = std::min(bytes, modules.front().budget().symbols.left());
  return {bytes / kBytesOfFunction, bytes / kBytesOfSiteEntry};
}

}  // namespace symforge_internal
