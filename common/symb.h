// SYMB: the binary symbol file, its records and what can be done with a block of it.
//
// A SYMB file carries what a Breakpad text symbol file says about one module, as sorted tables of
// fixed-size records and one table of strings, so that it can be mapped and searched as it lies on
// disk. docs/symb-format.md describes it for those who read it in another language.
//
//   - Numbers are in the byte order of the host; records have natural alignment, and the gaps that
//     this leaves hold zeros in a written file and are never read.
//   - A reference is a 64-bit offset in bytes from the start of the file, wherever it stands. 0 is
//     "absent" where a reference is optional. Strings end with a NUL byte.
//   - A table is an offset and a count of records.
//   - Addresses are relative to the module and 32 bits wide; a range is a first address and a size
//     in bytes, except in symb_nested_window_frame_info, which holds its last address.
//
// This header depends on nothing of the project.

#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

// ---- Records ------------------------------------------------------------------------------------

struct symb_header_metadata {
  char magic[4];  // "SYMB", no terminator
  // Less than 2: symb_header_v1 and symb_func. 2: symb_header_v2 and symb_func. Greater than 2:
  // symb_header_v2 and symb_func_inline. The writer writes 3; no reader tests an upper limit.
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
  uint64_t string_table_size;  // bytes, with the padding at its end
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
  uint64_t virtaddr;  // relative to the module; no reference
  uint64_t rawsize;   // bytes in the image's file
};
static_assert(sizeof(symb_section) == 16);

struct symb_file {
  int32_t index;  // the number of the FILE line; numbers may have holes
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
  uint64_t name;  // the fields of symb_func
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
  uint32_t address;  // the fields of symb_line
  uint32_t size;
  int32_t source_file_id;
  int32_t line;
  uint32_t caller;  // how deep the site is nested, 0 for the outermost
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

// What a STACK WIN line says about its range, in the units of the line: bytes, but in symforge's
// own lines of type 0 parameter_size and local_size are in double words, and saved_register_size
// counts registers.
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
  uint32_t address;    // last address of the range, inclusive
  uint64_t map;        // the ranges directly inside this one, ascending by last address; or 0
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
// All work on a whole file in memory, its size in bytes. None keeps state, so calls on different
// blocks may run at the same time; symb_validate() only reads, so it may also run on a block that
// others read. Failure is false, without a message unless one is named; memory that is not to be
// had is std::bad_alloc.

// Makes the SYMB image of a text symbol file.
//
// `symbol_data` is the NUL-terminated text; it is not changed. On true, *out_buffer is a new block
// of exactly *out_buffer_size bytes that the caller releases with delete[]. On false, both are as
// they were: the text has no MODULE line, ended by a line feed, with all of its four words. Lines
// that do not parse are logged by the parser (the first 10) and are absent from the image.
//
// Addresses and sizes are cut to 32 bits. An image of a text whose ranges all end at or below 4 GiB
// passes symb_validate(); beyond that the cut may leave a table out of order.
bool symb_write(const char* symbol_data, char** out_buffer, size_t* out_buffer_size);

// Makes the text symbol file of a SYMB block and appends it to `out`.
//
// The block is only read, and stays usable. False, with `out` as it was, if the block does not
// begin with "SYMB", or if what has to be printed lies outside it in part: tables, strings without
// an end in the block, frame info whose arrays contain themselves, or if its records share strings
// so that the text would be out of all proportion (16 MiB + 16 times the block). Nothing outside
// the block is ever read.
bool symb_read(char* in_buffer, size_t in_buffer_size, std::stringstream& out);

// Turns every reference of the block into the address that it stands for, in place. `base` is the
// block's address. A block can be turned once and not back; lookups need one that was not turned.
//
// False if the block is too small for its header, if a reference lies beyond `size` (equal to it is
// allowed: an object of which nothing is read) or if a table whose references have to be turned
// leaves the block; the block is then half turned and useless. The magic, and the ends of other
// objects and of strings, are not looked at.
bool symb_relocate(uint64_t base, uint64_t size);

// Whether a block is one that every operation can be trusted with. For hosts that take files from
// outside; nothing else calls it. `base` is the block's address, which is only read.
//
// What is demanded:
//   - the magic, a version of 1, 2 or 3, the header inside the block;
//   - every table inside the block, behind the header, at a multiple of 8; the string table's size
//     too is a multiple of 8; no two tables share a byte; an empty table may stand anywhere, also
//     at 0;
//   - every string begins inside the string table, at its start or behind a NUL, and the table ends
//     with a NUL; only code_id, code_file and program_string may be 0;
//   - ascending orders, without repetition: files by index, publics and delta rules by address;
//     functions, the lines of a function, initial rules disjoint and ascending;
//   - inline sites of a function in pre-order, each wholly inside or wholly behind the one before
//     it; one with the same range is inside if its `caller` is greater by 1;
//   - five frame info roots; the ranges of each array disjoint and ascending, inside their
//     container, of the type of their root;
//   - no range that ends above 4 GiB.
//
// True means that every lookup on the block (LoadMapFromMemory and what follows) reads nothing
// outside of it, and that symb_read() on it succeeds. It also means that searches find what is
// there. Time is linear in the size, memory 1/64 of it.
bool symb_validate(uint64_t base, uint64_t size);

// The part of that which concerns one frame info range and all that it contains: `parent` is the
// address of the range's record inside the block (not of a root), `strtbl_end` the offset behind
// the last byte of the string table. (The misspelling is the operation's name: hosts link to it.)
bool valicate_window_frame_info(uint64_t parent, uint64_t base, uint64_t size, uint64_t strtbl_end);

// Marks an open symbol file as used: its access time becomes now, its modification time stays. A
// failure is ignored.
void symb_touch(int fd);
