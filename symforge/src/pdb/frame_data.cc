// Frame data of 32-bit code, in its two forms: read into tables, printed as STACK WIN lines.

#include <algorithm>

#include "symforge/src/PDBParser.h"

namespace symforge_internal {

namespace {

// Equal in what marks a record as a repetition of the one in front of it.
template <typename Record>
bool repeats(const Record& record, const Record& last) {
  return record.ulOffStart == last.ulOffStart && record.cbProcSize == last.cbProcSize &&
         record.cbProlog == last.cbProlog;
}

}  // namespace

// The record in front of the first is one of zeros, so zeros at the start are dropped. A stream
// that ends inside a record gives that record too, with what its last page holds behind the end.
template <typename Record>
void PDBParser::readFPO(uint32_t fpoStream, FrameDataMap<Record>& fpoData) {
  const StreamPair& stream = getStream(fpoStream);
  StreamReader reader(stream, m_file.pages());
  fpoData.reserve(std::min<size_t>(stream.size, m_file.pages().length) / sizeof(Record) + 1);
  Record last{};
  while (reader.getOffset() < stream.size) {
    DataPtr<Record> record = reader.read<Record>();
    if (repeats(*record, last)) continue;
    last = *record;
    fpoData.add(std::move(record));
  }
  fpoData.seal();
}

void PDBParser::readFrameData(const DBIDebugHeader& debugHeader, FrameTables& frames) {
  if (debugHeader.FPO != kNoStream) readFPO(debugHeader.FPO, frames.v1);
  if (debugHeader.newFPO != kNoStream) readFPO(debugHeader.newFPO, frames.v2);
}

// Sizes are printed in the record's own units, double words and registers.
void PDBParser::printFPO(const FPO_DATA& data, TextBuffer& out) {
  constexpr size_t kRoom = 128;
  LineWriter line(out, kRoom);
  line.str("STACK WIN 0 ").hex(data.ulOffStart).chr(' ').hex(data.cbProcSize);
  line.chr(' ').hex(data.cbProlog).str(" 0 ").hex(data.cdwParams).chr(' ').hex(data.cbRegs());
  line.chr(' ').hex(data.cdwLocals).str(" 0 0 ").dec(data.fUseBP() ? 1 : 0).chr('\n');
}

// Without its program the line ends in a blank.
void PDBParser::printFPO(const FPO_DATA_V2& data, const NameStream& names, TextBuffer& out) {
  constexpr size_t kNumbers = 160;
  std::string_view program;
  names.find(data.ProgramStringOffset, program);
  LineWriter line(out, program.size() + kNumbers);
  line.str("STACK WIN 4 ").hex(data.ulOffStart).chr(' ').hex(data.cbProcSize);
  line.chr(' ').hex(data.cbProlog).str(" 0 ").hex(data.cbParams).chr(' ').hex(data.cbSavedRegs);
  line.chr(' ').hex(data.cbLocals).chr(' ').hex(data.maxStack).str(" 1 ").str(program).chr('\n');
}

void PDBParser::printFrameData(const FrameTables& frames, const NameStream& names,
                               TextBuffer& out) {
  for (const DataPtr<FPO_DATA_V2>& data : frames.v2) printFPO(*data, names, out);
  for (const DataPtr<FPO_DATA>& data : frames.v1) printFPO(*data, out);
}

}  // namespace symforge_internal
