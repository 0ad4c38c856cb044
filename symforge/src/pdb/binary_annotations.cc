#include "symforge/src/pdb/binary_annotations.h"

namespace symforge_internal {

// An operand that cannot be decoded is taken as 0xFFFFFFFF; as the cursor then stays, the byte is
// met again as an opcode and ends the walk there.
bool AnnotationDecoder::nextRange() {
  while (m_at < m_end) {
    switch (uncompressCV(m_at)) {
      case BA_OP_Invalid:
        m_at = m_end;
        return false;
      case BA_OP_CodeOffset:
        m_code = uncompressCV(m_at);
        return true;
      case BA_OP_ChangeCodeOffset:
        m_code += uncompressCV(m_at);
        return true;
      case BA_OP_ChangeCodeLength:
        m_length = uncompressCV(m_at);
        return true;
      case BA_OP_ChangeLineOffset:
        m_line += signedAnnotation(uncompressCV(m_at));
        break;
      case BA_OP_ChangeCodeOffsetAndLineOffset: {
        const uint32_t operand = uncompressCV(m_at);
        m_code += operand & 0xF;
        m_line += signedAnnotation(operand >> 4);
        return true;
      }
      case BA_OP_ChangeCodeLengthAndCodeOffset:
        m_length = uncompressCV(m_at);
        m_code += uncompressCV(m_at);
        return true;
      // A range keeps the file of its function, whatever the annotations say.
      case BA_OP_ChangeFile:
      case BA_OP_ChangeCodeOffsetBase:
      case BA_OP_ChangeLineEndDelta:
      case BA_OP_ChangeRangeKind:
      case BA_OP_ChangeColumnStart:
      case BA_OP_ChangeColumnEndDelta:
      case BA_OP_ChangeColumnEnd:
        uncompressCV(m_at);
        break;
      default:
        throw pdb_exception("invalid compressed op code");
    }
  }
  return false;
}

}  // namespace symforge_internal
