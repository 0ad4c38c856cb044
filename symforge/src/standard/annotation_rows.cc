#include "symforge/src/standard/annotation_rows.h"

#include <algorithm>

#include "symforge/src/pdb/binary_annotations.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kLastOpcode = BA_OP_ChangeColumnEnd;
constexpr uint32_t kUndecodable = 0xFFFFFFFF;
constexpr uint32_t kNoEntry = 0xFFFFFFFF;  // the offset of no file checksum

class RowBuilder {
 public:
  // Writes the rows from `rows` on.
  RowBuilder(const AnnotationStart& start, const AnnotationFiles& files, CodeRow* rows)
      : m_start(start), m_files(files), m_end(rows), m_file(start.file), m_line(start.line) {}

  // Applies one annotation, whose second operand only one opcode has. False for an opcode that does
  // not exist.
  bool apply(uint32_t opcode, uint32_t operand, uint32_t second);
  // Ends the last row and returns the end of all.
  CodeRow* finish() {
    endRow(m_start.chunkSize);
    return m_end;
  }

 private:
  [[gnu::always_inline]] void moveTo(uint32_t code) {
    m_code = code;
    endRow(code);
    if (m_chunk != m_start.chunk || code >= m_start.chunkSize) return;
    m_row = {code, code, {m_file, m_line}};
    m_open = true;
  }
  // Ends the row that has no length yet.
  [[gnu::always_inline]] void endRow(uint32_t end) {
    if (m_open && end > m_row.start) addRow(std::min(end, m_start.chunkSize));
    m_open = false;
  }
  [[gnu::always_inline]] void addRow(uint32_t end) {
    if (m_row.place.file != m_foundFor) find(m_row.place.file);
    const SourcePlace place = {m_found, m_found == kNoFile ? 0 : m_row.place.line};
    *m_end++ = {m_row.start, end, place};
  }
  void find(uint32_t file) {
    m_foundFor = file;
    m_found = m_files(file);
  }
  [[gnu::always_inline]] void setLength(uint32_t length) {
    const uint64_t end = uint64_t{m_row.start} + length;
    endRow(static_cast<uint32_t>(std::min<uint64_t>(end, m_start.chunkSize)));
  }

  const AnnotationStart& m_start;
  const AnnotationFiles& m_files;
  CodeRow* m_end;  // of the rows so far
  uint32_t m_file;
  uint32_t m_line;
  uint32_t m_code = 0;
  uint32_t m_chunk = 0;
  uint32_t m_foundFor = kNoEntry;
  uint32_t m_found = kNoFile;  // the file of the entry m_foundFor
  CodeRow m_row;               // its file is that of the annotations
  bool m_open = false;         // m_row waits for its end
};

inline bool RowBuilder::apply(uint32_t opcode, uint32_t operand, uint32_t second) {
  switch (opcode) {
    case BA_OP_CodeOffset:
      moveTo(operand);
      break;
    case BA_OP_ChangeCodeOffsetBase:
      endRow(m_start.chunkSize);
      m_chunk = operand;
      m_code = 0;
      break;
    case BA_OP_ChangeCodeOffset:
      moveTo(m_code + operand);
      break;
    case BA_OP_ChangeCodeLength:
      setLength(operand);
      m_code += operand;
      break;
    case BA_OP_ChangeFile:
      m_file = operand;
      break;
    case BA_OP_ChangeLineOffset:
      m_line += signedAnnotation(operand);
      break;
    case BA_OP_ChangeCodeOffsetAndLineOffset:
      m_line += signedAnnotation(operand >> 4);
      moveTo(m_code + (operand & 0xF));
      break;
    case BA_OP_ChangeCodeLengthAndCodeOffset:
      moveTo(m_code + second);
      setLength(operand);
      break;
    default:
      return opcode <= kLastOpcode;  // columns and the like
  }
  return true;
}

}  // namespace

bool appendAnnotationRows(const uint8_t* bytes, size_t size, const AnnotationStart& start,
                          const AnnotationFiles& files, CodeRows& rows) {
  // A row takes an annotation, which has two bytes or more; the last one may be incomplete.
  RowBuilder builder(start, files, rows.prepare(size / 2 + 1));
  const uint8_t* at = bytes;
  const uint8_t* const end = bytes + size;
  bool sound = true;
  while (at < end && sound) {
    const uint32_t opcode = uncompressCV(at);
    if (opcode == BA_OP_Invalid) break;  // also the padding
    const uint32_t operand = uncompressCV(at);
    const uint32_t second =
        opcode == BA_OP_ChangeCodeLengthAndCodeOffset ? uncompressCV(at) : uint32_t{0};
    sound = operand != kUndecodable && second != kUndecodable && at <= end &&
            builder.apply(opcode, operand, second);
  }
  rows.commit(builder.finish());
  return sound;
}

}  // namespace symforge_internal
