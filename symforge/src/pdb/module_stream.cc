// The stream of one module: a signature, CodeView symbols, old line data that nobody reads, and the
// C13 subsections.

#include "base/cycle_detector.h"
#include "symforge/src/PDBParser.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kModuleSignature = 4;

[[noreturn]] void refuseSubsection() { throw pdb_exception("Invalid subsection header detected"); }

}  // namespace

// A negative stream number becomes a huge index.
StreamReader PDBParser::openModule(const DBIModuleInfo* module) const {
  StreamReader reader(getStream(static_cast<size_t>(int64_t{module->stream})), m_file.pages());
  if (*reader.read<le_uint32>() != kModuleSignature)
    throw pdb_exception("Invalid module stream signature");
  return reader;
}

void PDBParser::readModule(const DBIModuleInfo* module, int32_t sig, const ModuleReadCB& cb) {
  StreamReader reader = openModule(module);
  reader.seek(module->cbSyms + module->cbOldLines);
  const uint32_t endOffset = reader.getOffset() + module->cbLines;
  CycleDetector<uint32_t> jumps;  // backwards, by sizes that wrap
  while (reader.getOffset() < endOffset) {
    const DataPtr<SubsectionHeader> header = reader.read<SubsectionHeader>();
    if (header->sig <= 0) continue;  // its payload is read as further headers
    const uint32_t payload = reader.getOffset();
    const uint32_t end = payload + header->size;
    if (!reader.isValidOffset(end)) refuseSubsection();
    if (end < payload && jumps.again(end)) refuseSubsection();
    if (header->sig == sig) cb(reader, sig, end);
    reader.seek(end);
    reader.align(4);
  }
}

}  // namespace symforge_internal
