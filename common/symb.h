// SYMB: the binary symbol file format, its records and operations.
//
// A SYMB file holds the contents of a Breakpad text symbol file for one module: sorted tables of
// fixed-size records and one table of strings. It can be mapped and searched in place.
// docs/symb-format.md describes the format independently of C++.
//
//   - Numbers are in host byte order. Records have natural alignment; their padding is zero in a
//     written file and is never read.
//   - A reference is a 64-bit offset in bytes from the start of the file. 0 means "absent" where a
//     reference is optional. Strings end with a NUL byte.
//   - A table is an offset and a number of records.
//   - Addresses are relative to the module and 32 bits wide. A range is a first address and a size
//   in
//     bytes, except in symb_nested_window_frame_info, which holds its last address.
//
// This header includes no other header of the project.

#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

// ---- Records ------------------------------------------------------------------------------------

struct symb_header_metadata {
  char magic[4];  // "SYMB", not terminated
  // 1: symb_header_v1 and symb_func. 2: symb_header_v2 and symb_func. 3 and above: symb_header_v2
  // and symb_func_inline. The writer writes 3. Readers treat 0 like 1 and have no upper limit.
  uint32_t version;
};
static_assert(sizeof(symb_header_metadata) == 8);
static_assert(offsetof(symb_header_metadata, version) == 4);

struct symb_header_v1 {
  symb_header_metadata md;
  uint64_t os;          // string
  uint64_t arch;        // string
  uint64_t debug_id;    // string
  uint64_t debug_file;  // string
  uint64_t code_id;     // string or 0
  uint64_t code_file;   // string or 0
  uint64_t string_table;
  uint64_t string_table_size;  // bytes, including the padding at its end
  uint64_t files;              // symb_file, ascending by signed index
  uint64_t file_count;
  uint64_t functions;  // symb_func or symb_func_inline, disjoint and ascending
  uint64_t function_count;
  uint64_t public_functions;  // symb_public, ascending by address
  uint64_t public_function_count;
  uint64_t windows_frame_info;  // symb_nested_window_frame_info, one root for each type 0 to 4
  uint64_t windows_frame_info_count;
  uint64_t cfi_initial_rules;  // symb_cfi_rule, disjoint and ascending
  uint64_t cfi_initial_rule_count;
  uint64_t cfi_delta_rules;  // symb_cfi_delta_rule, ascending by address
  uint64_t cfi_delta_rule_count;
};
static_assert(sizeof(symb_header_v1) == 168);
static_assert(offsetof(symb_header_v1, os) == 8);
static_assert(offsetof(symb_header_v1, code_id) == 40);
static_assert(offsetof(symb_header_v1, string_table) == 56);
static_assert(offsetof(symb_header_v1, files) == 72);
static_assert(offsetof(symb_header_v1, functions) == 88);
static_assert(offsetof(symb_header_v1, public_functions) == 104);
static_assert(offsetof(symb_header_v1, windows_frame_info) == 120);
static_assert(offsetof(symb_header_v1, cfi_initial_rules) == 136);
static_assert(offsetof(symb_header_v1, cfi_delta_rule_count) == 160);

struct symb_header_v2 {
  symb_header_v1 v1;
  uint64_t sections;  // symb_section, in the order of the text
  uint64_t section_count;
};
static_assert(sizeof(symb_header_v2) == 184);
static_assert(offsetof(symb_header_v2, sections) == 168);

using symb_header = symb_header_v2;

struct symb_section {
  uint64_t virtaddr;  // relative to the module; not a reference
  uint64_t rawsize;   // bytes in the image file
};
static_assert(sizeof(symb_section) == 16);

struct symb_file {
  int32_t index;  // number of the FILE line; may have gaps
  // 4 bytes of padding
  uint64_t name;  // string
};
static_assert(sizeof(symb_file) == 16 && offsetof(symb_file, name) == 8);

struct symb_func {
  uint64_t name;  // string
  uint32_t address;
  uint32_t size;
  int32_t parameter_size;  // bytes on the stack
  uint32_t line_count;
  uint64_t lines;  // symb_line, disjoint and ascending
};
static_assert(sizeof(symb_func) == 32);
static_assert(offsetof(symb_func, address) == 8);
static_assert(offsetof(symb_func, size) == 12);
static_assert(offsetof(symb_func, parameter_size) == 16);
static_assert(offsetof(symb_func, line_count) == 20);
static_assert(offsetof(symb_func, lines) == 24);

struct symb_func_inline {
  uint64_t name;  // from here to `line_count`, as in symb_func
  uint32_t address;
  uint32_t size;
  int32_t parameter_size;
  uint32_t line_count;
  uint64_t lines;
  uint32_t inline_count;
  // 4 bytes of padding
  uint64_t inlines;  // symb_inline, in pre-order: a site, then the sites inside it
};
static_assert(sizeof(symb_func_inline) == 48);
static_assert(offsetof(symb_func_inline, address) == offsetof(symb_func, address));
static_assert(offsetof(symb_func_inline, size) == offsetof(symb_func, size));
static_assert(offsetof(symb_func_inline, parameter_size) == offsetof(symb_func, parameter_size));
static_assert(offsetof(symb_func_inline, line_count) == offsetof(symb_func, line_count));
static_assert(offsetof(symb_func_inline, lines) == offsetof(symb_func, lines));
static_assert(offsetof(symb_func_inline, inline_count) == 32);
static_assert(offsetof(symb_func_inline, inlines) == 40);

struct symb_line {
  uint32_t address;
  uint32_t size;
  int32_t source_file_id;  // index of a symb_file
  int32_t line;
};
static_assert(sizeof(symb_line) == 16);
static_assert(offsetof(symb_line, source_file_id) == 8 && offsetof(symb_line, line) == 12);

struct symb_inline {
  uint32_t address;  // from here to `source_file_id` as in symb_line
  uint32_t size;
  int32_t source_file_id;
  int32_t line;
  uint32_t caller;  // nesting depth of the site, 0 for the outermost
  uint32_t __padding;
  uint64_t name;  // string
};
static_assert(sizeof(symb_inline) == 32);
static_assert(offsetof(symb_inline, line) == offsetof(symb_line, line));
static_assert(offsetof(symb_inline, caller) == 16);
static_assert(offsetof(symb_inline, __padding) == 20);
static_assert(offsetof(symb_inline, name) == 24);

struct symb_public {
  uint64_t name;  // string
  uint32_t address;
  int32_t parameter_size;
};
static_assert(sizeof(symb_public) == 16);
static_assert(offsetof(symb_public, address) == 8 && offsetof(symb_public, parameter_size) == 12);

// The contents of a STACK WIN line. Sizes are in bytes, except in lines of type 0 written by
// symforge: there parameter_size and local_size are in 4-byte words, and saved_register_size is a
// number of registers.
struct symb_window_frame_info {
  int32_t type;   // 0 to 4, a WindowsFrameInfo::StackInfoTypes value
  int32_t valid;  // WindowsFrameInfo::Validity bits; -1 in a written file
  uint16_t prolog_size;
  uint16_t epilog_size;
  uint16_t parameter_size;
  uint16_t saved_register_size;
  uint32_t local_size;
  uint32_t max_stack_size;
  uint32_t allocates_base_pointer;  // 0 or 1
  // 4 bytes of padding
  uint64_t program_string;  // string or 0
};
static_assert(sizeof(symb_window_frame_info) == 40);
static_assert(offsetof(symb_window_frame_info, prolog_size) == 8);
static_assert(offsetof(symb_window_frame_info, saved_register_size) == 14);
static_assert(offsetof(symb_window_frame_info, local_size) == 16);
static_assert(offsetof(symb_window_frame_info, allocates_base_pointer) == 24);
static_assert(offsetof(symb_window_frame_info, program_string) == 32);

struct symb_nested_window_frame_info {
  symb_window_frame_info wfi;
  uint32_t base;       // first address of the range
  uint32_t address;    // last address of the range (inclusive)
  uint64_t map;        // ranges directly inside this one, ascending by last address; or 0
  uint64_t map_count;  // their number
};
static_assert(sizeof(symb_nested_window_frame_info) == 64);
static_assert(offsetof(symb_nested_window_frame_info, base) == 40);
static_assert(offsetof(symb_nested_window_frame_info, address) == 44);
static_assert(offsetof(symb_nested_window_frame_info, map) == 48);
static_assert(offsetof(symb_nested_window_frame_info, map_count) == 56);

struct symb_cfi_rule {
  uint32_t base;
  uint32_t size;
  uint64_t rule;  // string
};
static_assert(sizeof(symb_cfi_rule) == 16 && offsetof(symb_cfi_rule, rule) == 8);

struct symb_cfi_delta_rule {
  uint32_t address;
  // 4 bytes of padding
  uint64_t rule;  // string
};
static_assert(sizeof(symb_cfi_delta_rule) == 16 && offsetof(symb_cfi_delta_rule, rule) == 8);

// ---- Operations ---------------------------------------------------------------------------------
//
// All operations work on a whole file in memory.
//
// Threads: no operation has state, so calls on different blocks may run concurrently.
// symb_validate() only reads the block and may run concurrently with other readers.
//
// Errors: failure is reported as false, without a message unless stated below. Running out of
// memory throws std::bad_alloc.

// Converts a text symbol file to a SYMB image.
//
// `symbol_data` is the NUL-terminated text; it is not modified. On success, sets *out_buffer to a
// new block of exactly *out_buffer_size bytes, which the caller releases with delete[]. Fails, and
// leaves both unchanged, if the text has no MODULE line with all four fields that ends with a line
// feed. Lines that do not parse are logged (only the first 10) and omitted from the image.
//
// Addresses and sizes are truncated to 32 bits. If all ranges of the text end at or below 4 GiB,
// the image passes symb_validate(). Otherwise truncation may leave a table unsorted.
bool symb_write(const char* symbol_data, char** out_buffer, size_t* out_buffer_size);

// Converts a SYMB block to a text symbol file and appends it to `out`.
//
// The block is only read and stays usable. Fails, and leaves `out` unchanged, if the block does not
// begin with "SYMB", if something to be printed is not entirely inside it (tables, strings without
// a NUL, frame info whose arrays contain themselves), or if records share strings such that the
// text would exceed 12 MiB + 4 times the block. Never reads outside the block.
bool symb_read(char* in_buffer, size_t in_buffer_size, std::stringstream& out);

// Relocates the block in place: adds `base`, the address of the block, to each reference. The
// result holds pointers and cannot be relocated back or used for lookups.
//
// Fails if the block is smaller than its header, if a reference exceeds `size` (equal to it is
// allowed), or if a table whose records contain references is not inside the block. On failure the
// block is partially relocated; discard it. The magic, other tables and the ends of strings are not
// checked.
bool symb_relocate(uint64_t base, uint64_t size);

// Validates a block from an untrusted source. Lookups and loading do not call it; hosts do. `base`
// is the address of the block, which is only read.
//
// Requirements:
//
//   - the magic, a version of 1, 2 or 3, and the header inside the block;
//   - every table inside the block, after the header, at a multiple of 8; the size of the string
//     table a multiple of 8; no two tables overlap; an empty table may have any offset, also 0;
//   - every string inside the string table, at its start or after a NUL, and a NUL at the end of
//   the
//     table; only code_id, code_file and program_string may be 0;
//   - strictly ascending order: files by index, public symbols and delta rules by address;
//     functions, the lines of a function, and initial rules disjoint and ascending;
//   - inline sites of a function in pre-order, each completely inside or completely after the one
//     before it; one with the same range is inside if its `caller` is greater by 1;
//   - five frame info roots; the ranges of each array disjoint and ascending, inside the range that
//     contains the array, of the type of their root;
//   - no range that ends above 4 GiB.
//
// True guarantees that no lookup on the block (LoadMapFromMemory and later calls) reads outside of
// it, that searches find all entries, and that symb_read() succeeds unless the text would exceed
// its limit. Takes linear time, and memory of 1/64 of the size.
bool symb_validate(uint64_t base, uint64_t size);

// Validates one frame info range and everything it contains. `parent` is the address of its record
// inside the block (not of a root), `strtbl_end` the offset of the end of the string table. The
// misspelled name is kept because hosts link to it.
bool valicate_window_frame_info(uint64_t parent, uint64_t base, uint64_t size, uint64_t strtbl_end);

// Sets the access time of an open symbol file to now, which marks it as used, and keeps its
// modification time. Errors are ignored.
void symb_touch(int fd);
