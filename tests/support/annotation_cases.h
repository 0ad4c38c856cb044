// Binary annotations written as text, for tests/data/annotations.txt.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "builders/bytes.h"
#include "builders/codeview_builder.h"
#include "tests/support/data.h"

namespace test_support {

// Words OPCODE:OPERAND or OPCODE:OPERAND:OPERAND with numbers as in C, or raw:HEX.
inline builders::Annotations annotations_of(const std::string& text) {
  builders::Annotations annotations;
  for (const std::string& word : split(text)) {
    const std::vector<std::string> parts = split(word, ':');
    const auto number = [&](size_t i) {
      return static_cast<uint32_t>(std::stoul(parts.at(i), nullptr, 0));
    };
    if (parts[0] == "raw") {
      annotations.raw(builders::from_hex(parts.at(1)));
    } else if (parts.size() == 2) {
      annotations.op(number(0), number(1));
    } else {
      annotations.op(number(0), number(1), number(2));
    }
  }
  return annotations;
}

}  // namespace test_support
