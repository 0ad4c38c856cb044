// Builds SYMB blocks byte by byte from the format's definition, with tables in the order in which
// symforge writes them. Also the offsets of header fields, for tests that damage a block.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace builders {

struct SymbLine {
  uint32_t address, size;
  int32_t file, line;
};

struct SymbSite {
  uint32_t address, size;
  int32_t file, line;
  uint32_t caller;
  std::string name;
};

struct SymbFunction {
  uint32_t address, size;
  int32_t parameter_size;
  std::string name;
  std::vector<SymbLine> lines;
  std::vector<SymbSite> sites;  // written for versions from 3
};

struct SymbPublic {
  uint32_t address;
  int32_t parameter_size;
  std::string name;
};

struct SymbRange {
  uint32_t base, last;
  std::string program;  // absent if empty
  uint32_t allocates_base_pointer = 0;
  std::vector<SymbRange> inside = {};
};

struct SymbInitialRule {
  uint32_t base, size;
  std::string rule;
};

struct SymbModel {
  uint32_t version = 3;
  std::string os = "windows", arch = "x86_64", debug_id = "0123", debug_file = "a.pdb";
  std::string code_id, code_file;  // absent if empty
  std::vector<std::pair<int32_t, std::string>> files;
  std::vector<SymbFunction> functions;
  std::vector<SymbPublic> publics;
  std::array<std::vector<SymbRange>, 5> frame_info;  // by type
  std::vector<SymbInitialRule> initial_rules;
  std::vector<std::pair<uint32_t, std::string>> delta_rules;
  std::vector<std::pair<uint64_t, uint64_t>> sections;  // written for versions from 2

  std::string bytes() const;
};

// A model with every kind of record: nested sites and frame info, public symbols between functions.
SymbModel rich_symb_model(uint32_t version = 3);

// Offsets of header fields. A table's count is 8 bytes after its offset.
enum SymbField : size_t {
  kSymbVersion = 4,
  kSymbOs = 8,
  kSymbDebugFile = 32,
  kSymbCodeId = 40,
  kSymbCodeFile = 48,
  kSymbStringTable = 56,
  kSymbFiles = 72,
  kSymbFunctions = 88,
  kSymbPublics = 104,
  kSymbFrameInfo = 120,
  kSymbInitialRules = 136,
  kSymbDeltaRules = 152,
  kSymbSections = 168,
};

}  // namespace builders
