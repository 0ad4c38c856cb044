// ARM64 unwind data of a PE image: the words of .pdata and the records of .xdata.
//
//   const Arm64Xdata record{.length = 0x20, .codes = "\xe1\x81\xe4"};
//   pe.arm64_entry(0x1000, pe.raw_unwind_info(record.bytes()));
//   pe.arm64_entry(0x2000, arm64_packed({.length = 0x40, .reg_i = 2, .frame = 32}));

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace builders {

// Lengths and the frame are in bytes here; the encoded fields are in units of 4 and of 16 bytes.
struct Arm64Packed {
  uint32_t flag = 1;
  uint32_t length = 0x40;
  uint32_t reg_f = 0;
  uint32_t reg_i = 0;
  uint32_t homed = 0;
  uint32_t cr = 0;
  uint32_t frame = 0;
};

// Flag in bits 0-1, length 2-12, RegF 13-15, RegI 16-19, H 20, CR 21-22, frame size 23-31.
uint32_t arm64_packed(const Arm64Packed& fields);

struct Arm64Epilog {
  uint32_t start = 0;  // bytes from the start of the function
  uint32_t index = 0;  // of its first code
  uint32_t reserved = 0;
};

struct Arm64Xdata {
  uint32_t length = 0x40;  // bytes
  uint32_t version = 0;
  bool handler = false;    // appends an RVA
  bool extended = false;   // stores the counts in a second word
  int single_epilog = -1;  // sets the E bit, with this index
  std::vector<Arm64Epilog> epilogs = {};
  std::string codes = {};  // padded to whole words with `end`

  std::string bytes() const;
};

}  // namespace builders
