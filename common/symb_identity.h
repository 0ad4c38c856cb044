// What the SYMB writer takes from the header lines of a text symbol file: the lines before the
// first one that is neither MODULE nor INFO. Internal to the writer; the converter's own reading of
// these lines (symforge/src/utils.h) keeps blanks in file names and reads on to the end.

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

// Fills `info` from a NUL-terminated text. Only lines that end with a line feed count; one of 4096
// bytes or more is stepped over. True if there is a debug identifier and a debug file name.
bool sym_info_parse(const char* sym_data, SymbHeaderLines& info);

}  // namespace symforge_internal
