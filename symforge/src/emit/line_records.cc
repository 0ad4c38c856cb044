#include "symforge/src/emit/line_records.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kLineCountMask = ~FunctionRecord::kHasLines;

// Whether the function keeps the block that it has. A block that begins at 0 is replaced: a start
// of 0 also means that there is no block.
bool keepsItsLines(const FunctionRecord& function, uint32_t address) {
  if (function.lineOffset == 0) return false;
  return function.lineOffset - function.rva < address - function.rva || function.hasLines();
}

}  // namespace

// The first function at or after the address, or the last one, gets the block; lengths are ignored.
// Only the lines of the first file of a subsection are used.
void resolveFunctionLines(const ModuleStream& module, size_t module_index,
                          const SectionMap& sections, const SourceFiles& files,
                          Functions& functions, FunctionIndex& index) {
  module.readModule(kLinesSubsection, [&](StreamReader& reader, uint32_t) {
    if (functions.empty()) return;
    const DataPtr<CV_LineSection> section = reader.read<CV_LineSection>();
    const uint32_t address = sections.mapAddressOmap(section->off, section->sec);
    FunctionRecord& function = functions[index.lowerBound(section->sec, address)];
    if (keepsItsLines(function, address)) return;

    const DataPtr<CV_SourceFile> source = reader.read<CV_SourceFile>();
    uint32_t file;
    if (!files.find(module_index, source->index, file)) return;
    function.fileIndex = file;
    // The marker is set after the lines are read: reading them can fail.
    function.lineCount = source->count & kLineCountMask;
    function.lineOffset = section->off;
    if (source->count != 0) {
      const uint32_t bytes = source->count * uint32_t{sizeof(CV_Line)};
      function.lines = reader.read<CV_Line>(bytes == 0 ? 1 : bytes);
    }
    function.lineCount |= FunctionRecord::kHasLines;
  });
}

}  // namespace symforge_internal
