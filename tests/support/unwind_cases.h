// Unwind data as words NAME=VALUE, for the tables in tests/data. Names are those of the builders'
// fields; numbers are decimal, or hexadecimal after "0x"; a flag is 1; bytes are hexadecimal.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "builders/pe_builder.h"

namespace test_support {

// The value of a word; empty if there is none.
std::string word_of(std::string_view words, std::string_view name);
uint32_t number_of(std::string_view words, std::string_view name, uint32_t otherwise = 0);

// version, flags, prolog, register, offset, chained=RVA, slots=SLOT,... A slot is a number or
// OFFSET:OPERATION:OPERAND, with a name of an operation (see the .cc) or its number.
builders::UnwindInfo x64_unwind(std::string_view words);

// The second word of a function's entry: with `codes`, the RVA of a record with the fields of
// Arm64Xdata, which is added to the image (epilogs=START:INDEX:RESERVED,...). Else packed data.
uint32_t arm64_unwind(builders::PeBuilder& pe, std::string_view words);

// STACK CFI lines without these words, separated by "; ".
std::string cfi_rows(std::string_view lines);

}  // namespace test_support
