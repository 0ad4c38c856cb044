#include "common/symbol_text.h"

namespace symforge_internal {

namespace {

// Upper bound of a line's keywords, numbers and blanks.
constexpr size_t kNumbersBytes = 256;

}  // namespace

void append_line(TextBuffer& out, const ModuleFields& fields) {
  const size_t strings =
      fields.os.size() + fields.arch.size() + fields.debug_id.size() + fields.debug_file.size();
  LineWriter line(out, strings + kNumbersBytes);
  line.str("MODULE ").str(fields.os).chr(' ').str(fields.arch).chr(' ').str(fields.debug_id);
  line.chr(' ').str(fields.debug_file).chr('\n');
}

void append_line(TextBuffer& out, const CodeIdFields& fields) {
  LineWriter line(out, fields.code_id.size() + fields.code_file.size() + kNumbersBytes);
  line.str("INFO CODE_ID ").str(fields.code_id).chr(' ').str(fields.code_file).chr('\n');
}

void append_line(TextBuffer& out, const SectionFields& fields) {
  LineWriter line(out, kNumbersBytes);
  line.str("INFO SECTION ").hex(fields.number);
  line.str(" virtaddr ").hex(fields.address).str(" rawsize ").hex(fields.raw_size);
  if (fields.characteristics) line.str(" characteristics ").hex(*fields.characteristics);
  line.chr('\n');
}

void append_line(TextBuffer& out, const FileFields& fields) {
  LineWriter line(out, fields.name.size() + kNumbersBytes);
  line.str("FILE ").dec_signed(fields.index).chr(' ').str(fields.name).chr('\n');
}

void append_line(TextBuffer& out, const InlineOriginFields& fields) {
  LineWriter line(out, fields.name.size() + kNumbersBytes);
  line.str("INLINE_ORIGIN ").dec_signed(fields.index).chr(' ').str(fields.name).chr('\n');
}

void append_line(TextBuffer& out, const FunctionFields& fields, std::string_view parameters) {
  LineWriter line(out, fields.name.size() + parameters.size() + kNumbersBytes);
  line.str("FUNC ");
  if (fields.is_multiple) line.str("m ");
  if (fields.section) line.hex(*fields.section).chr(':');
  line.hex_fields(fields.address, fields.size, static_cast<uint64_t>(fields.stack_param_size));
  line.chr(' ').str(fields.name).str(parameters).chr('\n');
}

void append_line(TextBuffer& out, const InlineFields& fields) {
  LineWriter line(out, fields.name.size() + kNumbersBytes);
  line.str("I ").hex_fields(fields.address, fields.size).chr(' ');
  line.dec_fields(fields.line_number, fields.source_file).chr(' ').hex(fields.caller);
  line.chr(' ').str(fields.name).chr('\n');
}

void append_line(TextBuffer& out, const InlineCallFields& fields) {
  if (fields.ranges.empty()) return;
  constexpr size_t kRangeBytes = 2 * (16 + 1);
  LineWriter line(out, fields.ranges.size() * kRangeBytes + kNumbersBytes);
  line.str("INLINE ");
  line.dec_fields(fields.depth, fields.call_line, fields.call_file, fields.origin);
  for (const InlineCallFields::Range& range : fields.ranges) {
    line.chr(' ').hex_fields(range.address, range.size);
  }
  line.chr('\n');
}

void append_line(TextBuffer& out, const PublicFields& fields) {
  LineWriter line(out, fields.name.size() + kNumbersBytes);
  line.str("PUBLIC ");
  if (fields.is_multiple) line.str("m ");
  line.hex_fields(fields.address, static_cast<uint64_t>(fields.stack_param_size));
  line.chr(' ').str(fields.name).chr('\n');
}

void append_line(TextBuffer& out, const StackWinFields& fields) {
  LineWriter line(out, fields.program_string.size() + kNumbersBytes);
  line.str("STACK WIN ");
  line.hex_fields(static_cast<uint32_t>(fields.type), fields.rva, fields.code_size,
                  fields.prolog_size, fields.epilog_size, fields.parameter_size,
                  fields.saved_register_size, fields.local_size, fields.max_stack_size);
  if (fields.has_program) {
    line.str(" 1 ").str(fields.program_string);
  } else {
    line.str(" 0 ").chr(fields.allocates_base_pointer ? '1' : '0');
  }
  line.chr('\n');
}

LineWriter& put_cfi_init(LineWriter& line, uint64_t address, uint64_t size) {
  return line.str("STACK CFI INIT ").hex_fields(address, size);
}

LineWriter& put_cfi_delta(LineWriter& line, uint64_t address) {
  return line.str("STACK CFI ").hex(address);
}

void append_line(TextBuffer& out, const StackCFIFields& fields) {
  LineWriter line(out, fields.rules.size() + kCfiPrefixBytes);
  if (fields.is_init) {
    put_cfi_init(line, fields.address, fields.size);
  } else {
    put_cfi_delta(line, fields.address);
  }
  line.chr(' ').str(fields.rules).chr('\n');
}

}  // namespace symforge_internal
