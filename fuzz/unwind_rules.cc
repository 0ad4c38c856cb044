// Converts the unwind data of a PE image of any machine to rules in the published format.

#include <charconv>
#include <string_view>

#include "base/text_buffer.h"
#include "fuzz/harness.h"
#include "symforge/src/pe/pe_image.h"
#include "symforge/src/pe/unwind_rules.h"
#include "tests/support/memory_file.h"

using namespace symforge_internal;

namespace {

constexpr CodeRange kFunctions[] = {{0x1000, 0x100}, {0x1080, 0x100}, {0x2000, 0x1000}};

constexpr std::string_view kInit = "STACK CFI INIT ";
constexpr std::string_view kRow = "STACK CFI ";

// Parses a hexadecimal number and removes it and the blank after it from `line`.
uint64_t number(std::string_view& line) {
  uint64_t value = 0;
  const auto result = std::from_chars(line.data(), line.data() + line.size(), value, 16);
  const auto length = static_cast<size_t>(result.ptr - line.data());
  fuzzing::require(length > 0 && length < line.size() && line[length] == ' ', "a number");
  line.remove_prefix(length + 1);
  return value;
}

// Checks that rows ascend within their range.
void check(std::string_view text) {
  uint64_t last = 0;
  uint64_t end = 0;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    fuzzing::require(line.size() < text.size(), "whole lines");
    text.remove_prefix(line.size() + 1);
    if (line.starts_with(kInit)) {
      line.remove_prefix(kInit.size());
      last = number(line);
      end = last + number(line);
      fuzzing::require(last < end && line.starts_with(".cfa: "), "a range with rules");
      fuzzing::require(line.find(" .ra: ") != std::string_view::npos, "a return address");
    } else {
      fuzzing::require(line.starts_with(kRow), "a row");
      line.remove_prefix(kRow.size());
      const uint64_t address = number(line);
      fuzzing::require(last < address && address < end && !line.empty(), "ascending rows");
      last = address;
    }
  }
}

}  // namespace

FUZZ_TARGET(unwind_rules)(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const test_support::MemoryFile file({reinterpret_cast<const char*>(data), size});
  symforge_internal::MMapWrapper mapping;
  if (!mapping.Map(file.path())) return 0;
  TextBuffer text;
  writeUnwindRules(symforge_internal::PeImage(mapping), kFunctions, text);
  check(text.view());
  return 0;
}
