#include "processor/windows_frame_info.h"

#include <cstdlib>
#include <vector>

#include "processor/tokenize.h"

namespace google_breakpad {

namespace {

uint32_t hex32(const char* token) { return static_cast<uint32_t>(strtoul(token, nullptr, 16)); }

}  // namespace

WindowsFrameInfo* WindowsFrameInfo::ParseFromString(std::string stack_info_string, int& type,
                                                    uint64_t& rva, uint64_t& code_size) {
  std::vector<char> buffer;
  StringToVector(stack_info_string, buffer);
  std::vector<char*> tokens;
  if (!Tokenize(buffer.data(), " \r\n", 11, &tokens)) return nullptr;

  type = static_cast<int>(strtol(tokens[0], nullptr, 16));
  if (static_cast<unsigned>(type) >= STACK_INFO_LAST) return nullptr;
  rva = strtoull(tokens[1], nullptr, 16);
  code_size = strtoull(tokens[2], nullptr, 16);

  auto* info = new WindowsFrameInfo;
  info->type_ = static_cast<StackInfoTypes>(type);
  info->valid = VALID_ALL;
  info->prolog_size = hex32(tokens[3]);
  info->epilog_size = hex32(tokens[4]);
  info->parameter_size = hex32(tokens[5]);
  info->saved_register_size = hex32(tokens[6]);
  info->local_size = hex32(tokens[7]);
  info->max_stack_size = hex32(tokens[8]);
  const bool has_program_string = strtoul(tokens[9], nullptr, 16) != 0;
  if (has_program_string) {
    info->program_string = tokens[10];
  } else {
    info->allocates_base_pointer = strtoul(tokens[10], nullptr, 16) != 0;
  }
  return info;
}

}  // namespace google_breakpad
