#include "symforge/src/pdb/frame_tables.h"

#include <algorithm>
#include <string_view>

namespace symforge_internal {

namespace {

constexpr size_t kMaxNumbersBytes = 160;  // of a line, without its program

// Equal in what marks a record as a repetition of the previous one.
template <typename Record>
bool repeats(const Record& record, const Record& last) {
  return record.ulOffStart == last.ulOffStart && record.cbProcSize == last.cbProcSize &&
         record.cbProlog == last.cbProlog;
}

}  // namespace

// The record before the first is one of zeros, so zeros at the start are dropped. A stream that
// ends inside a record yields that record too, with what its last page holds after the end.
template <typename Record>
void FrameTables::readFPO(const MsfFile& file, uint16_t fpoStream, FrameDataMap<Record>& fpoData) {
  const StreamPair& stream = file.getStream(fpoStream);
  StreamReader reader(stream, file.pages());
  fpoData.reserve(std::min<size_t>(stream.size, file.pages().length) / sizeof(Record) + 1);
  Record last{};
  while (reader.getOffset() < stream.size) {
    DataPtr<Record> record = reader.read<Record>();
    if (repeats(*record, last)) continue;
    last = *record;
    fpoData.add(std::move(record));
  }
  fpoData.seal();
}

void FrameTables::readFrameData(const MsfFile& file, const DBIDebugHeader& debugHeader) {
  if (debugHeader.FPO != kNoStream) readFPO(file, debugHeader.FPO, m_v1);
  if (debugHeader.newFPO != kNoStream) readFPO(file, debugHeader.newFPO, m_v2);
}

bool FrameTables::findParamSize(uint32_t rva, uint32_t codeSize, uint32_t& paramSize) const {
  const std::pair<uint32_t, uint32_t> range(rva, codeSize);
  if (const DataPtr<FPO_DATA_V2>* data = m_v2.find(range)) {
    paramSize = (*data)->cbParams;
  } else if (const DataPtr<FPO_DATA>* old = m_v1.find(range)) {
    paramSize = (*old)->cdwParams * 4;
  } else {
    return false;
  }
  return true;
}

// Sizes are printed in the record's own units, double words and registers.
void FrameTables::printFPO(const FPO_DATA& data, TextBuffer& out) {
  LineWriter line(out, kMaxNumbersBytes);
  line.str("STACK WIN 0 ").hex(data.ulOffStart).chr(' ').hex(data.cbProcSize);
  line.chr(' ').hex(data.cbProlog).str(" 0 ").hex(data.cdwParams).chr(' ').hex(data.cbRegs());
  line.chr(' ').hex(data.cdwLocals).str(" 0 0 ").dec(data.fUseBP() ? 1 : 0).chr('\n');
}

// Without its program the line ends in a blank.
void FrameTables::printFPO(const FPO_DATA_V2& data, const NameStream& names, TextBuffer& out) {
  std::string_view program;
  names.find(data.ProgramStringOffset, program);
  LineWriter line(out, program.size() + kMaxNumbersBytes);
  line.str("STACK WIN 4 ").hex(data.ulOffStart).chr(' ').hex(data.cbProcSize);
  line.chr(' ').hex(data.cbProlog).str(" 0 ").hex(data.cbParams).chr(' ').hex(data.cbSavedRegs);
  line.chr(' ').hex(data.cbLocals).chr(' ').hex(data.maxStack).str(" 1 ").name(program).chr('\n');
}

void FrameTables::printFrameData(const NameStream& names, TextBuffer& out) const {
  for (const DataPtr<FPO_DATA_V2>& data : m_v2) printFPO(*data, names, out);
  for (const DataPtr<FPO_DATA>& data : m_v1) printFPO(*data, out);
}

}  // namespace symforge_internal
