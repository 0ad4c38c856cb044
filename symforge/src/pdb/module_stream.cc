#include "symforge/src/pdb/module_stream.h"

#include "base/cycle_detector.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kModuleSignature = 4;

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

void ModuleStream::readModule(int32_t kind, const ModuleReadCB& visit) const {
  StreamReader reader = openModule();
  reader.seek(m_info->cbSyms + m_info->cbOldLines);
  const uint32_t endOffset = reader.getOffset() + m_info->cbLines;
  CycleDetector<uint32_t> jumps;  // backwards, by sizes that wrap
  while (reader.getOffset() < endOffset) {
    const DataPtr<SubsectionHeader> header = reader.read<SubsectionHeader>();
    if (header->sig <= 0) continue;  // its payload is read as further headers
    const uint32_t payload = reader.getOffset();
    const uint32_t end = payload + header->size;
    if (!reader.isValidOffset(end)) throwInvalidSubsection();
    if (end < payload && jumps.visit(end)) throwInvalidSubsection();
    if (header->sig == kind) visit(reader, end);
    reader.seek(end);
    reader.align(4);
  }
}

}  // namespace symforge_internal
