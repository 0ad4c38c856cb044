// Line subsections: to which function a block of lines belongs, and of which file it is.

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kLineCountMask = ~FunctionRecord::kHasLines;

// Whether the function keeps the block that it has. A block that began at 0 does not count, as a
// start of 0 is also how a function without a block looks.
bool keepsItsLines(const FunctionRecord& function, uint32_t address) {
  if (function.lineOffset == 0) return false;
  return function.lineOffset - function.offset < address - function.offset || function.hasLines();
}

// Takes the lines of the first file of a subsection; those of further files are never looked at.
void takeLines(StreamReader& reader, const UniqueSrcFiles& unique, const SrcFileIndex& fileIndex,
               uint32_t lineOffset, FunctionRecord& function) {
  const DataPtr<CV_SourceFile> source = reader.read<CV_SourceFile>();
  uint32_t file;
  if (!fileIndex.find(source->index, file)) return;
  function.fileIndex = unique[file].id;
  // Without the marker until the lines are there: reading them may fail.
  function.lineCount = source->count & kLineCountMask;
  function.lineOffset = lineOffset;
  if (source->count != 0) {
    const uint32_t bytes = source->count * uint32_t{sizeof(CV_Line)};
    function.lines = reader.read<CV_Line>(bytes == 0 ? 1 : bytes);
  }
  function.lineCount |= FunctionRecord::kHasLines;
}

}  // namespace

// A block goes to the first function at or behind its start, or to the last one: the match need not
// be exact, and nobody asks for lengths.
void PDBParser::resolveFunctionLines(const DBIModuleInfo* module, Functions& funcs,
                                     FunctionIndex& index, const UniqueSrcFiles& unique,
                                     const SrcFileIndex& fileIndex) {
  readModule(module, kLinesSubsection, [&](StreamReader& reader, int32_t, uint32_t) {
    if (funcs.empty()) return;
    const DataPtr<CV_LineSection> section = reader.read<CV_LineSection>();
    const uint32_t address = m_sections.mapAddressOmap(section->off, section->sec);
    FunctionRecord& function = funcs[index.lowerBound(section->sec, address)];
    if (keepsItsLines(function, address)) return;
    takeLines(reader, unique, fileIndex, section->off, function);
  });
}

}  // namespace symforge_internal
