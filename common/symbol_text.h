// The lines of a text symbol file: the fields of each kind of line, and functions to write and to
// parse it.
//
// append_line() appends one line with its line feed to a text. Numbers are written in the form of
// their field (hexadecimal in lower case without prefix or padding, or decimal). Carriage
// returns, line feeds and NULs in strings are written as blanks. docs/symbol-file.md describes each
// kind of line.
//
// Addresses are relative to the image, sizes are in bytes. Strings are views, which the caller
// keeps valid during the call.
//
// parse() implements the full grammar and may split the line in place. quick_parse() accepts only
// the usual form that symbol writers produce and does not modify the line. It returns false for
// everything else, valid or not; if it returns true, parse() would return true with the same
// fields.
//
// `line` begins with the prefix of its kind. `end` is the end of the line, at which a line end or
// NUL is stored; parse() overwrites it by a NUL. Parsed strings are views into the line, valid as
// long as the buffer, or views of constants. If a function returns false, fields may have been set.
// Nothing is logged.
//
// To add a kind of line, add its fields and declarations here and its functions in symbol_text.cc.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/text_buffer.h"
#include "google_breakpad/processor/windows_frame_info.h"

namespace symforge_internal {

// MODULE os arch debug_id debug_file
struct ModuleFields {
  std::string_view os;
  std::string_view arch;
  std::string_view debug_id;
  std::string_view debug_file;
};
// INFO CODE_ID code_id code_file
struct CodeIdFields {
  std::string_view code_id;
  std::string_view code_file;
};
// INFO SECTION number virtaddr ADDRESS rawsize SIZE [characteristics FLAGS]
struct SectionFields {
  uint64_t number;
  uint64_t address;
  uint64_t raw_size;
  std::optional<uint32_t> characteristics;
};
// FILE index name
struct FileFields {
  long index;
  std::string_view name;
  bool operator==(const FileFields&) const = default;
};
// INLINE_ORIGIN index name
struct InlineOriginFields {
  long index;
  std::string_view name;
  bool operator==(const InlineOriginFields&) const = default;
};
// FUNC [m] [section:]address size stack_param_size name
struct FunctionFields {
  bool is_multiple;
  std::optional<uint32_t> section;  // written only if set: the published format has none
  uint64_t address;
  uint64_t size;
  long stack_param_size;
  std::string_view name;
  bool operator==(const FunctionFields&) const = default;
};
// address size line_number source_file
struct LineFields {
  uint64_t address;
  uint64_t size;
  long line_number;
  long source_file;
  bool operator==(const LineFields&) const = default;
};
// I address size line_number source_file caller name
struct InlineFields {
  uint64_t address;
  uint64_t size;
  long line_number;
  long source_file;
  uint32_t caller;  // nesting depth, 0 for the outermost
  std::string_view name;
  bool operator==(const InlineFields&) const = default;
};
// INLINE depth call_line call_file origin [address size]+
constexpr uint32_t kMaxInlineDepth = 1000;  // lines with a greater depth are rejected
struct InlineCallFields {
  struct Range {
    uint64_t address;
    uint64_t size;
    bool operator==(const Range&) const = default;
  };
  uint32_t depth;  // 0: inlined into the function itself
  long call_line;
  long call_file;
  long origin;  // number of an INLINE_ORIGIN line
  std::span<const Range> ranges;
};
// PUBLIC [m] address stack_param_size name
struct PublicFields {
  bool is_multiple;
  uint64_t address;
  long stack_param_size;
  std::string_view name;
  bool operator==(const PublicFields&) const = default;
};
// STACK WIN type rva code_size prolog_size epilog_size parameter_size saved_register_size
// local_size max_stack_size, then "1" program_string or "0" allocates_base_pointer
struct StackWinFields : google_breakpad::StackWinSizes {
  int type = 0;  // 0 to 4; lines of other types are rejected
  uint64_t rva = 0;
  uint64_t code_size = 0;
  bool has_program = false;
  bool allocates_base_pointer = false;  // only meaningful without a program
  std::string_view program_string;      // may be empty even if there is a program
};
// STACK CFI INIT address size rules, or STACK CFI address rules, which has no size.
struct StackCFIFields {
  bool is_init;
  uint64_t address;
  uint64_t size;
  std::string_view rules;
  bool operator==(const StackCFIFields&) const = default;
};

void append_line(TextBuffer& out, const ModuleFields& fields);
void append_line(TextBuffer& out, const CodeIdFields& fields);
void append_line(TextBuffer& out, const SectionFields& fields);
void append_line(TextBuffer& out, const FileFields& fields);
void append_line(TextBuffer& out, const InlineOriginFields& fields);
// `parameters` is written directly after the name: names and parameter lists are stored separately.
void append_line(TextBuffer& out, const FunctionFields& fields, std::string_view parameters = {});
void append_line(TextBuffer& out, const InlineFields& fields);
// Writes nothing for a call without ranges.
void append_line(TextBuffer& out, const InlineCallFields& fields);
void append_line(TextBuffer& out, const PublicFields& fields);
void append_line(TextBuffer& out, const StackWinFields& fields);
void append_line(TextBuffer& out, const StackCFIFields& fields);

// Inline, because this is the most frequent kind.
inline void append_line(TextBuffer& out, const LineFields& fields) {
  constexpr size_t kMaxBytes = 4 * 20 + 4;
  LineWriter(out, kMaxBytes)
      .hex_fields(fields.address, fields.size)
      .chr(' ')
      .dec_fields(fields.line_number, fields.source_file)
      .chr('\n');
}

// The start of a STACK CFI line, up to the blank before its rules, for code that composes the rules
// in the same LineWriter. Takes at most kCfiPrefixBytes.
constexpr size_t kCfiPrefixBytes = 64;
LineWriter& put_cfi_init(LineWriter& line, uint64_t address, uint64_t size);
LineWriter& put_cfi_delta(LineWriter& line, uint64_t address);

bool quick_parse(const char* line, const char* end, FileFields* fields);
bool quick_parse(const char* line, const char* end, FunctionFields* fields);
bool quick_parse(const char* line, const char* end, PublicFields* fields);
bool quick_parse(const char* line, const char* end, InlineFields* fields);
bool quick_parse(const char* line, const char* end, StackWinFields* fields);
bool quick_parse(const char* line, const char* end, StackCFIFields* fields);
// Finds the end of the line and stores it in `*end`. The text ends at `text_end`.
bool quick_parse(const char* line, const char* text_end, const char** end, LineFields* fields);

bool parse(char* line, char* end, FileFields* fields);
bool parse(char* line, char* end, FunctionFields* fields);
bool parse(char* line, char* end, LineFields* fields);
bool parse(char* line, char* end, PublicFields* fields);
// Rejects only missing fields and numbers out of range. A field that is not a number counts as 0,
// and characters after a number are ignored.
bool parse(char* line, char* end, InlineFields* fields);

bool parse(char* line, char* end, InlineOriginFields* fields);
// Replaces the contents of `ranges` by those that fields->ranges refers to. Numbers consist of
// digits only, at most 18 decimal or 15 hexadecimal ones. More than kMaxInlineSites ranges are
// rejected. The line is not modified.
bool parse(const char* line, const char* end, InlineCallFields* fields,
           std::vector<InlineCallFields::Range>* ranges);

// Splits a line that begins with "STACK " after its platform word, which becomes NUL-terminated.
// The rest of the line, which may be empty, begins one byte after it.
void split_stack_line(char* line, char* end, char** platform, char** stack_info);
// Parse the part after the platform word. For STACK WIN, a field that is not a number counts as 0,
// and characters after a number are ignored.
bool parse(char* stack_info, char* end, StackWinFields* fields);
bool parse(char* stack_info, char* end, StackCFIFields* fields);

// The rules of a STACK CFI INIT line, updated by those of a STACK CFI line at its address: for a
// register with a rule in both, the one of `changes` is used.
std::string join_cfi_rules(std::string_view rules, std::string_view changes);

// Whether a number may be followed by `*after_number`: a blank, a line end or the end of the text.
bool is_valid_after_number(const char* after_number);

}  // namespace symforge_internal
