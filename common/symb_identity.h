// The header lines of a text symbol file (those before the first line that is neither MODULE nor
// INFO) as the SYMB writer reads them. Internal to the writer. The converter has its own reader of
// these lines in symforge/src/utils.h, which keeps blanks in file names and reads the whole text.

#pragma once

#include <string>
#include <vector>

#include "common/symb.h"

namespace symforge_internal {

struct SymbHeaderLines {
  std::string os;
  std::string arch;
  std::string debug_id;
  std::string debug_file;  // ends at its first blank
  std::string code_id;
  std::string code_file;
  std::vector<symb_section> sections;  // of the valid INFO SECTION lines
};

// Fills `info` from a NUL-terminated text. A line without a line feed or of 4096 bytes or more is
// skipped. Returns true if there are a debug identifier and a debug file name.
bool sym_info_parse(const char* sym_data, SymbHeaderLines& info);

}  // namespace symforge_internal
