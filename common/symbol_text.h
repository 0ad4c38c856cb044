// The lines of a text symbol file: the fields of each kind of line, how it is written and how it is
// read.
//
// append_line() appends one line, with its line feed, to a text. Numbers come out in the form that
// the kind prescribes (hexadecimal in lower case without prefix or padding, or decimal); carriage
// returns, line feeds and NULs in strings are written as blanks. docs/symbol-file.md describes each
// kind.
//
// Addresses are relative to the image, sizes are in bytes. Strings are views that the caller keeps
// alive for the call.
//
// parse() reads a line by the full grammar; it may split the line in place. quick_parse() reads a
// line of the shape that symbol writers produce, without changing it, and is false for everything
// else, valid or not: where it is true, parse() is true with the same fields. `line` begins with
// the prefix of its kind; `end` is the end of the line, where a line end or NUL is stored. parse()
// puts a NUL there. Strings are views into the line and live as long as the buffer does, or are
// views of a constant. On false, fields may have been set. Nothing is logged.
//
// To add a kind of line: its fields and declarations here, its functions in symbol_text.cc.

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
  uint32_t caller;  // the depth of nesting, 0 for the outermost
  std::string_view name;
  bool operator==(const InlineFields&) const = default;
};
// INLINE depth call_line call_file origin [address size]+
constexpr uint32_t kMaxInlineDepth = 1000;  // a line with a greater depth is not read
struct InlineCallFields {
  struct Range {
    uint64_t address;
    uint64_t size;
    bool operator==(const Range&) const = default;
  };
  uint32_t depth;  // 0: inlined into the function itself
  long call_line;
  long call_file;
  long origin;  // the index of an INLINE_ORIGIN line
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
// local_size
//   max_stack_size, then "1" program_string or "0" allocates_base_pointer
struct StackWinFields : google_breakpad::StackWinSizes {
  int type = 0;  // 0 to 4; lines of other types are not read
  uint64_t rva = 0;
  uint64_t code_size = 0;
  bool has_program = false;
  bool allocates_base_pointer = false;  // meaningful without a program
  std::string_view program_string;      // may be empty with a program, too
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
// `parameters` is written directly after the name: names and parameter lists have different owners.
void append_line(TextBuffer& out, const FunctionFields& fields, std::string_view parameters = {});
void append_line(TextBuffer& out, const InlineFields& fields);
// A call without ranges is not written.
void append_line(TextBuffer& out, const InlineCallFields& fields);
void append_line(TextBuffer& out, const PublicFields& fields);
void append_line(TextBuffer& out, const StackWinFields& fields);
void append_line(TextBuffer& out, const StackCFIFields& fields);

// The most frequent kind, in line for loops over records.
inline void append_line(TextBuffer& out, const LineFields& fields) {
  constexpr size_t kMaxBytes = 4 * 20 + 4;
  LineWriter(out, kMaxBytes)
      .hex_fields(fields.address, fields.size)
      .chr(' ')
      .dec_fields(fields.line_number, fields.source_file)
      .chr('\n');
}

// The beginning of a STACK CFI line, up to the blank before its rules, for writers that compose the
// rules in the same LineWriter. Takes at most kCfiPrefixBytes.
constexpr size_t kCfiPrefixBytes = 64;
LineWriter& put_cfi_init(LineWriter& line, uint64_t address, uint64_t size);
LineWriter& put_cfi_delta(LineWriter& line, uint64_t address);

bool quick_parse(const char* line, const char* end, FileFields* fields);
bool quick_parse(const char* line, const char* end, FunctionFields* fields);
bool quick_parse(const char* line, const char* end, PublicFields* fields);
bool quick_parse(const char* line, const char* end, InlineFields* fields);
bool quick_parse(const char* line, const char* end, StackWinFields* fields);
bool quick_parse(const char* line, const char* end, StackCFIFields* fields);
// Finds the end of its line, which it stores in `*end`.
bool quick_parse(const char* line, const char** end, LineFields* fields);

bool parse(char* line, char* end, FileFields* fields);
bool parse(char* line, char* end, FunctionFields* fields);
bool parse(char* line, char* end, LineFields* fields);
bool parse(char* line, char* end, PublicFields* fields);
// Refuses missing fields and numbers out of range only: what is no number counts as 0, and
// characters after a number are ignored.
bool parse(char* line, char* end, InlineFields* fields);

bool parse(char* line, char* end, InlineOriginFields* fields);
// `ranges` is cleared and then holds the ranges that fields->ranges refers to. Numbers are digits
// alone, of at most 18 decimal or 15 hexadecimal places. The line is not changed.
bool parse(const char* line, const char* end, InlineCallFields* fields,
           std::vector<InlineCallFields::Range>* ranges);

// Splits a line that begins with "STACK " at its platform word, which becomes NUL-terminated; the
// rest of the line, which may be empty, begins one byte after it.
void split_stack_line(char* line, char* end, char** platform, char** stack_info);
// These two read what follows the platform word. The words of a STACK WIN line are not checked for
// trailing characters: what is no number counts as 0.
bool parse(char* stack_info, char* end, StackWinFields* fields);
bool parse(char* stack_info, char* end, StackCFIFields* fields);

// The rules of a STACK CFI INIT line after the changes of a STACK CFI line at its address: a
// register of which both have a rule keeps that of `changes`.
std::string join_cfi_rules(std::string_view rules, std::string_view changes);

// Whether a number may end at `after_number`: before a blank, a line end or the end of the text.
bool is_valid_after_number(const char* after_number);

}  // namespace symforge_internal
