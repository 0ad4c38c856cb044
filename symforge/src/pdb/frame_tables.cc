#include "symforge/src/pdb/frame_tables.h"

#include <algorithm>
#include <string_view>

#include "common/symbol_text.h"

namespace symforge_internal {

namespace {

// Whether a record repeats the previous one.
template <typename Record>
bool repeats(const Record& record, const Record& last) {
  return record.ulOffStart == last.ulOffStart && record.cbProcSize == last.cbProcSize &&
         record.cbProlog == last.cbProlog;
}

}  // namespace

// The record before the first counts as zeros, so zeros at the start are dropped. If the stream
// ends inside a record, that record is completed from the rest of its last page.
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
  StackWinFields fields;
  fields.type = google_breakpad::WindowsFrameInfo::STACK_INFO_FPO;
  fields.rva = data.ulOffStart;
  fields.code_size = data.cbProcSize;
  fields.prolog_size = data.cbProlog;
  fields.parameter_size = data.cdwParams;
  fields.saved_register_size = data.cbRegs();
  fields.local_size = data.cdwLocals;
  fields.allocates_base_pointer = data.fUseBP();
  append_line(out, fields);
}

// Without its program the line ends in a blank.
void FrameTables::printFPO(const FPO_DATA_V2& data, const NameStream& names, TextBuffer& out) {
  std::string_view program;
  names.find(data.ProgramStringOffset, program);
  StackWinFields fields;
  fields.type = google_breakpad::WindowsFrameInfo::STACK_INFO_FRAME_DATA;
  fields.rva = data.ulOffStart;
  fields.code_size = data.cbProcSize;
  fields.prolog_size = data.cbProlog;
  fields.parameter_size = data.cbParams;
  fields.saved_register_size = data.cbSavedRegs;
  fields.local_size = data.cbLocals;
  fields.max_stack_size = data.maxStack;
  fields.has_program = true;
  fields.program_string = program;
  append_line(out, fields);
}

void FrameTables::printFrameData(const NameStream& names, TextBuffer& out) const {
  for (const DataPtr<FPO_DATA_V2>& data : m_v2) printFPO(*data, names, out);
  for (const DataPtr<FPO_DATA>& data : m_v1) printFPO(*data, out);
}

}  // namespace symforge_internal
