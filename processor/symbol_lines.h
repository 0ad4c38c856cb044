// The fields of each kind of line, and the two ways to read them.
//
// A Quick function reads a line of the shape that symbol writers produce, without changing it, and
// is false for everything else, right or wrong. The exact function behind it (without "Quick" in
// its name) accepts and refuses by the full grammar; it splits the line in place. Where the quick
// one is true, the exact one is true with the same fields.
//
// `line` begins with the prefix of its kind; `end` is the line's end, where a line end or NUL
// stands. The exact functions put a NUL there. Texts are views into the line and live as long as
// the buffer does, or are views of a constant.

#pragma once

#include <cstdint>
#include <string_view>

namespace google_breakpad {

struct FileFields {
  long index;
  std::string_view name;
  bool operator==(const FileFields&) const = default;
};
struct FunctionFields {
  bool is_multiple;
  uint32_t section;
  uint64_t address;
  uint64_t size;
  long stack_param_size;
  std::string_view name;
  bool operator==(const FunctionFields&) const = default;
};
struct LineFields {
  uint64_t address;
  uint64_t size;
  long line_number;
  long source_file;
  bool operator==(const LineFields&) const = default;
};
struct PublicFields {
  bool is_multiple;
  uint64_t address;
  long stack_param_size;
  std::string_view name;
  bool operator==(const PublicFields&) const = default;
};
struct InlineFields {
  uint64_t address;
  uint64_t size;
  long line_number;
  long source_file;
  uint32_t caller;
  std::string_view name;
  bool operator==(const InlineFields&) const = default;
};
// A STACK WIN line. A type of 5 or more is refused.
struct StackWinFields {
  int type;
  uint64_t rva;
  uint64_t code_size;
  uint32_t prolog_size;
  uint32_t epilog_size;
  uint32_t parameter_size;
  uint32_t saved_register_size;
  uint32_t local_size;
  uint32_t max_stack_size;
  bool allocates_base_pointer;
  std::string_view program_string;
  bool operator==(const StackWinFields&) const = default;
};
// A STACK CFI INIT line, or a STACK CFI line, which has no size.
struct StackCFIFields {
  bool is_init;
  uint64_t address;
  uint64_t size;
  std::string_view rules;
  bool operator==(const StackCFIFields&) const = default;
};

bool QuickFile(const char* line, const char* end, FileFields* fields);
bool QuickFunction(const char* line, const char* end, FunctionFields* fields);
// Finds the end of its line by itself and gives it in `*end`.
bool QuickLine(const char* line, const char** end, LineFields* fields);
bool QuickPublic(const char* line, const char* end, PublicFields* fields);
bool QuickInline(const char* line, const char* end, InlineFields* fields);
bool QuickStackWin(const char* line, const char* end, StackWinFields* fields);
bool QuickStackCFI(const char* line, const char* end, StackCFIFields* fields);

bool ReadFile(char* line, char* end, FileFields* fields);
bool ReadFunction(char* line, char* end, FunctionFields* fields);
bool ReadLine(char* line, char* end, LineFields* fields);
bool ReadPublic(char* line, char* end, PublicFields* fields);
bool ReadInline(char* line, char* end, InlineFields* fields);

// What follows the platform word of a STACK line, see SplitStackLine.
bool ReadStackWin(char* stack_info, char* end, StackWinFields* fields);
bool ReadStackCFI(char* stack_info, char* end, StackCFIFields* fields);

// Splits a line that begins with "STACK " at its platform word, which becomes NUL-terminated; the
// rest of the line, which may be empty, begins one byte behind it.
void SplitStackLine(char* line, char* end, char** platform, char** stack_info);

}  // namespace google_breakpad
