// WindowsFrameInfo: what a STACK WIN line tells about the stack frame of a stretch of 32-bit code.
// A plain value: nothing in it refers to the symbols that it came from.

#pragma once

#include <cstdint>
#include <string>

namespace google_breakpad {

// The sizes on a STACK WIN line, as they are there: bytes, but in symforge's own lines of
// STACK_INFO_FPO parameter_size and local_size are in double words, and saved_register_size counts
// registers.
struct StackWinSizes {
  uint32_t prolog_size = 0;
  uint32_t epilog_size = 0;
  uint32_t parameter_size = 0;
  uint32_t saved_register_size = 0;
  uint32_t local_size = 0;
  uint32_t max_stack_size = 0;
};

struct WindowsFrameInfo : StackWinSizes {
  // The kind of the STACK WIN line. Lookups give STACK_INFO_FPO and STACK_INFO_FRAME_DATA, and
  // STACK_INFO_UNKNOWN for a record that comes from no such line.
  enum StackInfoTypes : int {
    STACK_INFO_FPO = 0,
    STACK_INFO_TRAP,
    STACK_INFO_TSS,
    STACK_INFO_STANDARD,
    STACK_INFO_FRAME_DATA,
    STACK_INFO_LAST,  // not a kind: their number
    STACK_INFO_UNKNOWN = -1,
  };

  // Which fields hold values.
  enum Validity {
    VALID_NONE = 0,
    VALID_PARAMETER_SIZE = 1,
    VALID_ALL = -1,
  };

  // Takes apart what follows "STACK WIN " on its line:
  //   type rva code_size prolog_size epilog_size parameter_size saved_register_size local_size
  //   max_stack_size has_program_string, then program_string or allocates_base_pointer
  // with all numbers in hexadecimal. Returns a new record, which the caller owns, and the line's
  // type (0 to 4), its first address relative to the module and its size in bytes; null if words
  // are missing or the type is unknown, and the references may have been set by then. Numbers are
  // not checked for trailing characters: what is no number counts as 0.
  static WindowsFrameInfo* ParseFromString(std::string stack_info_string, int& type, uint64_t& rva,
                                           uint64_t& code_size);

  StackInfoTypes type_ = STACK_INFO_UNKNOWN;
  int valid = VALID_NONE;  // a combination of Validity values
  // Whether the code uses the base pointer register for its own purposes. Meaningful only without
  // a program string.
  bool allocates_base_pointer = false;
  // The program that recovers the caller's registers; may be empty.
  std::string program_string;
};

}  // namespace google_breakpad
