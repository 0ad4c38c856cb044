// The lines of a text symbol file: the fields of each kind of line and how it is written.
//
// append_line() appends one line, with its line feed, to a text. Numbers come out in the form that
// the kind prescribes (hexadecimal in lower case without prefix or padding, or decimal); strings
// are written as they are, so they must not contain line ends. docs/symbol-file.md describes each
// kind.
//
// Addresses are relative to the image, sizes are in bytes. Strings are views that the caller keeps
// alive for the call.
//
// To add a kind of line: its fields and declarations here, its functions in symbol_text.cc.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "base/text_buffer.h"

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
  bool has_program;
  bool allocates_base_pointer;      // meaningful without a program
  std::string_view program_string;  // may be empty with a program, too
  bool operator==(const StackWinFields&) const = default;
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

}  // namespace symforge_internal
