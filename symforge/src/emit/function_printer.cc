#include "symforge/src/emit/function_printer.h"

#include <charconv>
#include <cstring>
#include <iterator>
#include <string_view>

#include "common/symbol_text.h"
#include "symforge/src/emit/erase_marker.h"

namespace symforge_internal {

namespace {

// " file\n", which ends every line of a block, padded so that all of it is copied at once.
constexpr size_t kMaxEndingBytes = 16;
// "address size line file\n" with numbers of 8, 8 and 8 digits and such an end.
constexpr size_t kMaxLineBytes = 8 + 1 + 8 + 1 + 8 + kMaxEndingBytes;
constexpr uint32_t kLineNumberMask = 0x00FFFFFF;

// The name without words that only the Windows compiler writes. The blank after "__cdecl" is kept.
std::string_view cleanName(std::string_view name, std::string& storage) {
  if (!hasCompilerMarker(name)) return name;
  storage = name;
  eraseFromTheEnd(storage, 0, " __ptr64");
  eraseFromTheEnd(storage, 0, "__cdecl");
  return storage;
}

void printFunction(const FunctionRecord& func, std::string_view name, std::string_view parameters,
                   TextBuffer& out) {
  append_line(
      out,
      FunctionFields{false, uint32_t{func.segment}, func.rva, func.length, func.paramSize, name},
      parameters);
}

void printPublic(const FunctionRecord& func, TextBuffer& out) {
  append_line(out, PublicFields{false, func.rva, func.paramSize, func.name.data});
}

// The number of bytes that a block of lines is moved down: if its last line begins after the
// function's end, the distance, rounded up to a multiple of 16.
uint32_t adjustment(uint32_t lastOffset, uint32_t length) {
  if (lastOffset <= length) return 0;
  return (lastOffset - length + 15) & ~uint32_t{15};
}

}  // namespace

// Sizes are the distances to the next line, which are large for unsorted lines.
void FunctionPrinter::printLines(const FunctionRecord& func, TextBuffer& out) const {
  const uint32_t count = func.lineCount & ~FunctionRecord::kHasLines;
  if (count == 0) return;
  const CV_Line* lines = func.lines.data;
  const uint32_t adjust = adjustment(lines[count - 1].offset, func.length);
  const uint32_t end = adjust + func.length;
  const uint32_t base = func.segment == 0 ? 0 : m_sections.sectionBase(func.segment);
  const uint32_t start = base + func.pre_omap_offset - adjust;
  const bool mapped = func.segment != 0 && m_sections.isRewritten();

  char ending[kMaxEndingBytes] = {' '};
  char* const endingEnd = std::to_chars(ending + 1, std::end(ending), func.fileIndex).ptr;
  *endingEnd = '\n';
  const ptrdiff_t endingSize = endingEnd + 1 - ending;

  // This loop writes most of a symbol file, so it keeps its position in a register.
  char* const begin = out.prepare(kMaxLineBytes * count);
  char* at = begin;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t offset = lines[i].offset;
    const uint32_t next = i + 1 == count ? end : uint32_t{lines[i + 1].offset};
    const uint32_t rva = start + offset;
    at = put_hex_pair(at, mapped ? m_sections.finalRva(rva) : rva, next - offset);
    at = put_dec(at, lines[i].flags & kLineNumberMask);
    std::memcpy(at, ending, sizeof(ending));
    at += endingSize;
  }
  out.commit(static_cast<size_t>(at - begin));
}

void FunctionPrinter::printTypedFunction(const FunctionRecord& func, TextBuffer& out) {
  m_parameters.clear();
  m_typeNames.stringizeType(func.typeIndex, m_parameters, TypeNames::IsTopLevel, false);
  printFunction(func, cleanName(func.name.data, m_name), m_parameters, out);
  if (func.hasLines()) printLines(func, out);
}

// Names, lines and types are scattered over the mapping: they are prefetched a few functions ahead.
void FunctionPrinter::prefetch(const Functions& functions, size_t i) const {
  constexpr size_t kAhead = 8;
  if (i + 2 * kAhead < functions.size()) {
    m_typeNames.prefetchIndex(functions[i + 2 * kAhead].typeIndex);
  }
  if (i + kAhead < functions.size()) {
    const FunctionRecord& next = functions[i + kAhead];
    m_typeNames.prefetchRecord(next.typeIndex);
    __builtin_prefetch(next.name.data);
    __builtin_prefetch(next.name.data + 64);
    __builtin_prefetch(next.lines.data);
  }
}

void FunctionPrinter::printFunctions(const Functions& functions, size_t first, size_t end,
                                     TextBuffer& out) {
  for (size_t i = first; i < end; ++i) {
    prefetch(functions, i);
    const FunctionRecord& func = functions[i];
    if (func.dropped()) continue;
    if (func.typeIndex != 0) {
      printTypedFunction(func, out);
    } else if (func.length != 0) {
      printFunction(func, func.name.data, {}, out);
    } else {
      printPublic(func, out);
    }
    if (m_sites != nullptr) m_sites->print(func, out);
  }
}

}  // namespace symforge_internal
