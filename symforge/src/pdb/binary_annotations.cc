#include "symforge/src/pdb/binary_annotations.h"

namespace symforge_internal {

namespace {

enum BinaryAnnotationOpcode : uint32_t {
  BA_OP_Invalid = 0,  // also the zeros that pad a record
  BA_OP_CodeOffset = 1,
  BA_OP_ChangeCodeOffsetBase = 2,
  BA_OP_ChangeCodeOffset = 3,
  BA_OP_ChangeCodeLength = 4,
  BA_OP_ChangeFile = 5,
  BA_OP_ChangeLineOffset = 6,
  BA_OP_ChangeLineEndDelta = 7,
  BA_OP_ChangeRangeKind = 8,
  BA_OP_ChangeColumnStart = 9,
  BA_OP_ChangeColumnEndDelta = 10,
  BA_OP_ChangeCodeOffsetAndLineOffset = 11,
  BA_OP_ChangeCodeLengthAndCodeOffset = 12,
  BA_OP_ChangeColumnEnd = 13,
};

// A magnitude with the sign in the lowest bit, as what is to be added.
uint32_t signedDelta(uint32_t operand) {
  const uint32_t magnitude = operand >> 1;
  return (operand & 1) != 0 ? 0 - magnitude : magnitude;
}

}  // namespace

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
        m_line += signedDelta(uncompressCV(m_at));
        break;
      case BA_OP_ChangeCodeOffsetAndLineOffset: {
        const uint32_t operand = uncompressCV(m_at);
        m_code += operand & 0xF;
        m_line += signedDelta(operand >> 4);
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
