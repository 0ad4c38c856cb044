// WindowsFrameInfo: what a STACK WIN line says about the stack frames of a range of 32-bit code. It
// is a plain value and does not refer to the symbols it was read from.

#pragma once

#include <cstdint>
#include <string>

namespace google_breakpad {

// The sizes of a STACK WIN line, with their values unchanged. They are in bytes, except in
// STACK_INFO_FPO lines written by symforge: there parameter_size and local_size are in 4-byte words
// and saved_register_size is a number of registers.
struct StackWinSizes {
  uint32_t prolog_size = 0;
  uint32_t epilog_size = 0;
  uint32_t parameter_size = 0;
  uint32_t saved_register_size = 0;
  uint32_t local_size = 0;
  uint32_t max_stack_size = 0;
};

struct WindowsFrameInfo : StackWinSizes {
  // The type of the STACK WIN line. Lookups return STACK_INFO_FPO or STACK_INFO_FRAME_DATA, and
  // STACK_INFO_UNKNOWN for a record that was not made from such a line.
  enum StackInfoTypes : int {
    STACK_INFO_FPO = 0,
    STACK_INFO_TRAP,
    STACK_INFO_TSS,
    STACK_INFO_STANDARD,
    STACK_INFO_FRAME_DATA,
    STACK_INFO_LAST,  // not a type: the number of types
    STACK_INFO_UNKNOWN = -1,
  };

  // Bits for the fields that are set.
  enum Validity {
    VALID_NONE = 0,
    VALID_PARAMETER_SIZE = 1,
    VALID_ALL = -1,
  };

  // Parses the text that follows "STACK WIN " on its line:
  //
  //   type rva code_size prolog_size epilog_size parameter_size saved_register_size local_size
  //   max_stack_size has_program_string, then program_string or allocates_base_pointer
  //
  // All numbers are hexadecimal; a number that does not parse counts as 0, and trailing characters
  // are ignored. Returns a new record owned by the caller, and sets the line's type (0 to 4), its
  // first address relative to the module and its size in bytes. Returns null if fields are missing
  // or the type is unknown; the output arguments may have been set in that case.
  static WindowsFrameInfo* ParseFromString(std::string stack_info_string, int& type, uint64_t& rva,
                                           uint64_t& code_size);

  StackInfoTypes type_ = STACK_INFO_UNKNOWN;
  int valid = VALID_NONE;  // a combination of Validity bits
  // Whether the code uses the base pointer register for its own purposes. Only meaningful without a
  // program string.
  bool allocates_base_pointer = false;
  // The program that recovers the caller's registers. May be empty.
  std::string program_string;
};

}  // namespace google_breakpad
