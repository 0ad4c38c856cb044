#include "builders/arm64_unwind_builder.h"

#include "builders/bytes.h"

namespace builders {

uint32_t arm64_packed(const Arm64Packed& fields) {
  return fields.flag | fields.length / 4 << 2 | fields.reg_f << 13 | fields.reg_i << 16 |
         fields.homed << 20 | fields.cr << 21 | fields.frame / 16 << 23;
}

// Length in bits 0-17, version 18-19, X 20, E 21, epilog count 22-26, code words 27-31. The second
// word, when both counts are 0: epilog count in bits 0-15, code words 16-23. A scope: start in bits
// 0-17, reserved 18-21, index 22-31.
std::string Arm64Xdata::bytes() const {
  const Bytes padded = Bytes(codes).align(4, 0xE4);
  const auto words = static_cast<uint32_t>(padded.size() / 4);
  const bool single = single_epilog >= 0;
  const uint32_t count =
      single ? static_cast<uint32_t>(single_epilog) : static_cast<uint32_t>(epilogs.size());
  uint32_t head = length / 4 | version << 18 | (handler ? 1U << 20 : 0) | (single ? 1U << 21 : 0);
  if (!extended) head |= count << 22 | words << 27;
  Bytes bytes;
  bytes.u32(head);
  if (extended) bytes.u32(count | words << 16);
  for (const Arm64Epilog& epilog : epilogs) {
    bytes.u32(epilog.start / 4 | epilog.reserved << 18 | epilog.index << 22);
  }
  bytes.text(padded.str());
  if (handler) bytes.u32(0x1000);
  return std::move(bytes).str();
}

}  // namespace builders
