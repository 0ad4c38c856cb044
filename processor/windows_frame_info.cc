#include "processor/windows_frame_info.h"

#include <vector>

#include "common/symbol_text.h"
#include "processor/tokenize.h"

namespace google_breakpad {

// The signature is that of the interface.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
WindowsFrameInfo* WindowsFrameInfo::ParseFromString(std::string stack_info_string, int& type,
                                                    uint64_t& rva, uint64_t& code_size) {
  std::vector<char> line;
  StringToVector(stack_info_string, line);
  symforge_internal::StackWinFields fields;
  if (!symforge_internal::parse(line.data(), &line.back(), &fields)) return nullptr;
  type = fields.type;
  rva = fields.rva;
  code_size = fields.code_size;

  auto* info = new WindowsFrameInfo;
  static_cast<StackWinSizes&>(*info) = fields;
  info->type_ = static_cast<StackInfoTypes>(type);
  info->valid = VALID_ALL;
  info->allocates_base_pointer = fields.allocates_base_pointer;
  info->program_string = fields.program_string;
  return info;
}

}  // namespace google_breakpad
