// The binary annotations of an inline site: a string of opcodes and operands, each a compressed
// number, that change a code offset and a source line and so describe the site's code ranges.

#pragma once

#include <cstddef>
#include <cstdint>

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

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

// The addend that an operand encodes: a magnitude with the sign in the lowest bit.
inline uint32_t signedAnnotation(uint32_t operand) {
  const uint32_t magnitude = operand >> 1;
  return (operand & 1) != 0 ? 0 - magnitude : magnitude;
}

// Bytes after the end of an annotation string that decoding can read: an opcode that begins with
// the last byte, and its two operands.
constexpr size_t kAnnotationSlack = 11;
static_assert(kAnnotationSlack <= StreamReader::kCopySlack);

// Reads one compressed number of 1, 2 or 4 bytes, big-endian after the prefix bits 0, 10 or 110,
// and moves `data` past it. 0xFFFFFFFF, and `data` unmoved, for a byte that begins no number.
inline uint32_t uncompressCV(const uint8_t*& data) {
  const uint32_t first = data[0];
  if ((first & 0x80) == 0) {
    data += 1;
    return first;
  }
  if ((first & 0xC0) == 0x80) {
    const uint32_t value = (first & 0x3F) << 8 | data[1];
    data += 2;
    return value;
  }
  if ((first & 0xE0) == 0xC0) {
    const uint32_t value =
        (first & 0x1F) << 24 | uint32_t{data[1]} << 16 | uint32_t{data[2]} << 8 | uint32_t{data[3]};
    data += 4;
    return value;
  }
  return 0xFFFFFFFF;
}

// Walks the annotations of one site after another and stops at each code range to be stored.
//
//   AnnotationDecoder decoder;              // one a function: the length outlasts a site
//   decoder.beginSite(bytes, size, address, line);
//   while (decoder.nextRange()) store(decoder.code(), decoder.length(), decoder.line());
//
// A range is stored the moment its start or its length changes, with the length known then. All
// sums are 32 bits wide and wrap.
class AnnotationDecoder {
 public:
  // `bytes`: the annotations, with kAnnotationSlack readable bytes after them. `code`: address of
  // the function's first byte. `line`: source line of the inlined function.
  void beginSite(const uint8_t* bytes, size_t size, uint32_t code, uint32_t line) {
    m_at = bytes;
    m_end = bytes + size;
    m_code = code;
    m_line = line;
  }

  // Moves to the next range; false at the end of the site's annotations. Throws pdb_exception for
  // an unknown opcode.
  bool nextRange();

  uint32_t code() const { return m_code; }      // first address
  uint32_t length() const { return m_length; }  // bytes; 1: not known
  uint32_t line() const { return m_line; }

 private:
  const uint8_t* m_at = nullptr;
  const uint8_t* m_end = nullptr;
  uint32_t m_code = 0;
  uint32_t m_length = 1;
  uint32_t m_line = 0;
};

}  // namespace symforge_internal
