#include "common/symbol_text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/number_cursor.h"
#include "base/text_hash.h"
#include "common/line_record_bytes.h"
#include "common/lookup_limits.h"
#include "processor/tokenize.h"

namespace symforge_internal {

namespace {

using google_breakpad::StackWinSizes;
using google_breakpad::Tokenize;
using google_breakpad::TokenizeTry;
using google_breakpad::WindowsFrameInfo;

// Upper bound of a line's keywords, numbers and blanks.
constexpr size_t kNumbersBytes = 256;

constexpr std::string_view kFile = "FILE ", kInlineOrigin = "INLINE_ORIGIN ", kFunction = "FUNC ",
                           kPublic = "PUBLIC ", kInline = "I ", kInlineCall = "INLINE ",
                           kStack = "STACK ", kStackWin = "STACK WIN ", kStackCfi = "STACK CFI ",
                           kInit = "INIT ";
constexpr char kWhitespace[] = " \r\n";

// Stands in for a missing name. Never written, but returned like a pointer into a line.
char omitted[] = "<omitted>";

// The order of the size fields on a STACK WIN line.
constexpr uint32_t StackWinSizes::*kStackWinSizes[] = {
    &StackWinSizes::prolog_size,    &StackWinSizes::epilog_size,
    &StackWinSizes::parameter_size, &StackWinSizes::saved_register_size,
    &StackWinSizes::local_size,     &StackWinSizes::max_stack_size};

// ---- For append_line()
// ---------------------------------------------------------------------------

// Writes a number and returns the end of it; takes at most 20 bytes.
char* put_decimal(char* at, long number) {
  if (number >= 0 && number <= long{UINT32_MAX}) return put_dec(at, static_cast<uint32_t>(number));
  return std::to_chars(at, at + 20, number).ptr;
}

// Writes "ADDRESS SIZE " and returns the end of it; takes at most 34 bytes.
char* put_range(char* at, const InlineCallFields::Range& range) {
  if ((range.address | range.size) <= UINT32_MAX) {
    return put_hex_pair(at, static_cast<uint32_t>(range.address),
                        static_cast<uint32_t>(range.size));
  }
  for (const uint64_t number : {range.address, range.size}) {
    at = std::to_chars(at, at + 16, number, 16).ptr;
    *at++ = ' ';
  }
  return at;
}

// ---- For quick_parse() --------------------------------------------------------------------------

bool starts_with(const char* line, const char* end, std::string_view prefix) {
  return std::string_view(line, static_cast<size_t>(end - line)).starts_with(prefix);
}

bool is_line_end(char c) { return c == '\n' || c == '\r' || c == '\0'; }

// The rest of a line after one blank. It must not be empty: missing text has a special meaning in
// most kinds of lines.
bool rest_of_line(NumberCursor& cursor, const char* end, std::string_view* rest) {
  if (!cursor.blank() || cursor.at() >= end) return false;
  *rest = {cursor.at(), static_cast<size_t>(end - cursor.at())};
  return true;
}

// Consumes the optional flag "m" (multiple), which marks folded symbols.
bool optional_multiple(NumberCursor& cursor) {
  if (cursor.at()[0] != 'm' || cursor.at()[1] != ' ') return false;
  return cursor.chr('m') && cursor.blank();
}

template <typename Number>
bool blank_and_hex(NumberCursor& cursor, Number* value) {
  uint64_t number = 0;
  const bool read = cursor.blank() && cursor.hex(&number);
  *value = static_cast<Number>(number);
  return read;
}

// ---- For parse() --------------------------------------------------------------------------------

// Tokenizes a line that may begin with the flag "m", which `max_tokens` includes. A missing last
// field is accepted as "<omitted>".
bool tokenize_with_multiple(char* line, int max_tokens, std::vector<char*>* tokens) {
  if (!Tokenize(line, kWhitespace, 2, tokens)) return false;
  const bool is_multiple = strcmp(tokens->front(), "m") == 0;
  const int num_tokens = max_tokens - (is_multiple ? 1 : 2);

  char* rest = tokens->back();
  tokens->pop_back();
  std::vector<char*> rest_tokens;
  const int missing = num_tokens - TokenizeTry(rest, kWhitespace, num_tokens, &rest_tokens);
  if (missing >= 2) return false;
  tokens->insert(tokens->end(), rest_tokens.begin(), rest_tokens.end());
  if (missing == 1) tokens->push_back(omitted);
  return true;
}

// Parses an address or size: any value except the largest, which is also the result of an overflow.
bool parse_hex64(const char* token, uint64_t* value) {
  char* after = nullptr;
  *value = strtoull(token, &after, 16);
  return is_valid_after_number(after) && *value != ULLONG_MAX;
}

// Parses a number that is neither negative nor the largest value.
bool parse_count(const char* token, int base, long* value) {
  char* after = nullptr;
  *value = strtol(token, &after, base);
  return is_valid_after_number(after) && *value >= 0 && *value != LONG_MAX;
}

// Parses a number of an I line, which fails only if it is out of range.
template <typename Number>
bool parse_lenient(const char* token, int base, Number* value) {
  errno = 0;
  const unsigned long long number = strtoull(token, nullptr, base);
  *value = static_cast<Number>(number);
  return number != ULLONG_MAX || errno != ERANGE;
}

uint32_t parse_hex32(const char* token) {
  return static_cast<uint32_t>(strtoul(token, nullptr, 16));
}

}  // namespace

bool is_valid_after_number(const char* after_number) {
  return after_number != nullptr && strchr(kWhitespace, *after_number) != nullptr;
}

// ---- MODULE and INFO ----------------------------------------------------------------------------

void append_line(TextBuffer& out, const ModuleFields& fields) {
  const size_t strings =
      fields.os.size() + fields.arch.size() + fields.debug_id.size() + fields.debug_file.size();
  LineWriter line(out, strings + kNumbersBytes);
  line.str("MODULE ").name(fields.os).chr(' ').name(fields.arch).chr(' ').name(fields.debug_id);
  line.chr(' ').name(fields.debug_file).chr('\n');
}

void append_line(TextBuffer& out, const CodeIdFields& fields) {
  LineWriter line(out, fields.code_id.size() + fields.code_file.size() + kNumbersBytes);
  line.str("INFO CODE_ID ").name(fields.code_id).chr(' ').name(fields.code_file).chr('\n');
}

void append_line(TextBuffer& out, const SectionFields& fields) {
  LineWriter line(out, kNumbersBytes);
  line.str("INFO SECTION ").hex(fields.number);
  line.str(" virtaddr ").hex(fields.address).str(" rawsize ").hex(fields.raw_size);
  if (fields.characteristics) line.str(" characteristics ").hex(*fields.characteristics);
  line.chr('\n');
}

// ---- FILE and INLINE_ORIGIN ---------------------------------------------------------------------

void append_line(TextBuffer& out, const FileFields& fields) {
  LineWriter line(out, fields.name.size() + kNumbersBytes);
  line.str(kFile).dec_signed(fields.index).chr(' ').name(fields.name).chr('\n');
}

bool quick_parse(const char* line, const char* end, FileFields* fields) {
  NumberCursor cursor(line + kFile.size(), end);
  return cursor.decimal(&fields->index) && rest_of_line(cursor, end, &fields->name);
}

bool parse(char* line, char* end, FileFields* fields) {
  *end = '\0';
  std::vector<char*> tokens;
  if (!Tokenize(line + kFile.size(), kWhitespace, 2, &tokens)) return false;
  fields->name = tokens[1];
  return parse_count(tokens[0], 10, &fields->index);
}

void append_line(TextBuffer& out, const InlineOriginFields& fields) {
  LineWriter line(out, fields.name.size() + kNumbersBytes);
  line.str(kInlineOrigin).dec_signed(fields.index).chr(' ').name(fields.name).chr('\n');
}

bool parse(char* line, char* end, InlineOriginFields* fields) {
  *end = '\0';
  std::vector<char*> tokens;
  if (!Tokenize(line + kInlineOrigin.size(), kWhitespace, 2, &tokens)) return false;
  fields->name = tokens[1];
  return parse_count(tokens[0], 10, &fields->index);
}

// ---- FUNC ---------------------------------------------------------------------------------------

void append_line(TextBuffer& out, const FunctionFields& fields, std::string_view parameters) {
  LineWriter line(out, fields.name.size() + parameters.size() + kNumbersBytes);
  line.str(kFunction);
  if (fields.is_multiple) line.str("m ");
  if (fields.section) line.hex(*fields.section).chr(':');
  line.hex_fields(fields.address, fields.size, static_cast<uint64_t>(fields.stack_param_size));
  line.chr(' ').name(fields.name, parameters).chr('\n');
}

bool quick_parse(const char* line, const char* end, FunctionFields* fields) {
  NumberCursor cursor(line + kFunction.size(), end);
  fields->is_multiple = optional_multiple(cursor);
  fields->section.reset();
  if (!cursor.hex(&fields->address)) return false;
  if (cursor.chr(':')) {
    fields->section = static_cast<uint32_t>(fields->address);
    if (!cursor.hex(&fields->address)) return false;
  }
  return blank_and_hex(cursor, &fields->size) && blank_and_hex(cursor, &fields->stack_param_size) &&
         rest_of_line(cursor, end, &fields->name);
}

bool parse(char* line, char* end, FunctionFields* fields) {
  *end = '\0';
  std::vector<char*> tokens;
  if (!tokenize_with_multiple(line + kFunction.size(), 5, &tokens)) return false;
  fields->is_multiple = strcmp(tokens[0], "m") == 0;
  size_t next = fields->is_multiple ? 1 : 0;

  char* address = tokens[next++];
  char* after = nullptr;
  const uint64_t before_colon = strtoull(address, &after, 16);
  fields->section.reset();
  if (*after == ':') {
    if (before_colon == ULLONG_MAX) return false;
    fields->section = static_cast<uint32_t>(before_colon);
    address = after + 1;
  }
  if (!parse_hex64(address, &fields->address)) return false;
  if (!parse_hex64(tokens[next++], &fields->size)) return false;
  if (!parse_count(tokens[next++], 16, &fields->stack_param_size)) return false;
  fields->name = tokens[next];
  return true;
}

// ---- Line records -------------------------------------------------------------------------------

bool quick_parse(const char* line, const char* text_end, const char** end, LineFields* fields) {
  if (text_end - line >= LineRecordBytes::kReadable) {
    const LineRecordBytes record(line);
    if (record.parse(fields)) {
      *end = record.end();
      return true;
    }
  }
  NumberCursor cursor(line, text_end);
  if (!cursor.hex(&fields->address) || !blank_and_hex(cursor, &fields->size) || !cursor.blank() ||
      !cursor.decimal(&fields->line_number) || !cursor.blank() ||
      !cursor.decimal(&fields->source_file) || !is_line_end(*cursor.at())) {
    return false;
  }
  *end = cursor.at();
  return true;
}

bool parse(char* line, char* end, LineFields* fields) {
  *end = '\0';
  std::vector<char*> tokens;
  if (!Tokenize(line, kWhitespace, 4, &tokens)) return false;
  return parse_hex64(tokens[0], &fields->address) && parse_hex64(tokens[1], &fields->size) &&
         parse_count(tokens[2], 10, &fields->line_number) &&
         parse_count(tokens[3], 10, &fields->source_file);
}

// ---- I ------------------------------------------------------------------------------------------

void append_line(TextBuffer& out, const InlineFields& fields) {
  LineWriter line(out, fields.name.size() + kNumbersBytes);
  line.str(kInline).hex_fields(fields.address, fields.size).chr(' ');
  line.dec_fields(fields.line_number, fields.source_file).chr(' ').hex(fields.caller);
  line.chr(' ').name(fields.name).chr('\n');
}

bool quick_parse(const char* line, const char* end, InlineFields* fields) {
  NumberCursor cursor(line + kInline.size(), end);
  return cursor.hex(&fields->address) && blank_and_hex(cursor, &fields->size) && cursor.blank() &&
         cursor.decimal(&fields->line_number) && cursor.blank() &&
         cursor.decimal(&fields->source_file) && blank_and_hex(cursor, &fields->caller) &&
         rest_of_line(cursor, end, &fields->name);
}

bool parse(char* line, char* end, InlineFields* fields) {
  *end = '\0';
  char* position = nullptr;
  const char* word = strtok_r(line, " ", &position);
  if (word == nullptr || word[0] != 'I') return false;
  const char* tokens[5];
  for (const char*& token : tokens) {
    token = strtok_r(nullptr, " ", &position);
    if (token == nullptr) return false;
  }
  if (!parse_lenient(tokens[0], 16, &fields->address) ||
      !parse_lenient(tokens[1], 16, &fields->size) ||
      !parse_lenient(tokens[2], 10, &fields->line_number) ||
      !parse_lenient(tokens[3], 10, &fields->source_file) ||
      !parse_lenient(tokens[4], 16, &fields->caller)) {
    return false;
  }
  // Where tokenizing would continue: after the fifth number and one blank, or at the end of the
  // line.
  fields->name = position;
  return true;
}

// ---- INLINE -------------------------------------------------------------------------------------

// A quarter of a standard symbol file consists of these lines, so room is checked once for each.
void append_line(TextBuffer& out, const InlineCallFields& fields) {
  if (fields.ranges.empty()) return;
  constexpr size_t kRangeBytes = 2 * (1 + 16);
  char* const begin = out.prepare(fields.ranges.size() * kRangeBytes + kNumbersBytes);
  char* at = begin;
  std::memcpy(at, kInlineCall.data(), kInlineCall.size());
  at += kInlineCall.size();
  if (fields.depth < 10) {  // nearly all
    *at++ = static_cast<char>('0' + fields.depth);
  } else {
    at = put_decimal(at, fields.depth);
  }
  const auto put_field = [&at](long number) {
    *at = ' ';
    at = put_decimal(at + 1, number);
  };
  put_field(fields.call_line);
  put_field(fields.call_file);
  put_field(fields.origin);
  *at++ = ' ';
  for (const InlineCallFields::Range& range : fields.ranges) at = put_range(at, range);
  at[-1] = '\n';
  out.commit(static_cast<size_t>(at - begin));
}

bool parse(const char* line, const char* end, InlineCallFields* fields,
           std::vector<InlineCallFields::Range>* ranges) {
  ranges->clear();
  NumberCursor cursor(line + kInlineCall.size(), end);
  const auto skip_blanks = [&cursor] {
    const char* const begin = cursor.at();
    while (cursor.blank()) continue;
    return cursor.at() != begin;
  };
  skip_blanks();
  long depth = 0;
  for (long* number : {&depth, &fields->call_line, &fields->call_file, &fields->origin}) {
    if (!cursor.decimal(number) || !skip_blanks()) return false;
  }
  if (depth > kMaxInlineDepth) return false;
  fields->depth = static_cast<uint32_t>(depth);
  while (cursor.at() < end) {
    InlineCallFields::Range range;
    if (!cursor.hex(&range.address) || !skip_blanks() || !cursor.hex(&range.size)) return false;
    if (!skip_blanks() && cursor.at() != end) return false;
    if (ranges->size() == kMaxInlineSites) return false;
    ranges->push_back(range);
  }
  fields->ranges = *ranges;
  return !ranges->empty();
}

// ---- PUBLIC -------------------------------------------------------------------------------------

void append_line(TextBuffer& out, const PublicFields& fields) {
  LineWriter line(out, fields.name.size() + kNumbersBytes);
  line.str(kPublic);
  if (fields.is_multiple) line.str("m ");
  line.hex_fields(fields.address, static_cast<uint64_t>(fields.stack_param_size));
  line.chr(' ').name(fields.name).chr('\n');
}

bool quick_parse(const char* line, const char* end, PublicFields* fields) {
  NumberCursor cursor(line + kPublic.size(), end);
  fields->is_multiple = optional_multiple(cursor);
  return cursor.hex(&fields->address) && blank_and_hex(cursor, &fields->stack_param_size) &&
         rest_of_line(cursor, end, &fields->name);
}

bool parse(char* line, char* end, PublicFields* fields) {
  *end = '\0';
  std::vector<char*> tokens;
  if (!tokenize_with_multiple(line + kPublic.size(), 4, &tokens)) return false;
  fields->is_multiple = strcmp(tokens[0], "m") == 0;
  size_t next = fields->is_multiple ? 1 : 0;
  if (!parse_hex64(tokens[next++], &fields->address)) return false;
  if (!parse_count(tokens[next++], 16, &fields->stack_param_size)) return false;
  fields->name = tokens[next];
  return true;
}

// ---- STACK --------------------------------------------------------------------------------------

void split_stack_line(char* line, char* end, char** platform, char** stack_info) {
  *end = '\0';
  *platform = line + kStack.size();
  *platform += strspn(*platform, " ");
  char* word_end = *platform + strcspn(*platform, kWhitespace);
  // If the line ends with the word, its rest is empty; the next line is not read.
  *stack_info = word_end == end ? end : word_end + 1;
  *word_end = '\0';
}

void append_line(TextBuffer& out, const StackWinFields& fields) {
  LineWriter line(out, fields.program_string.size() + kNumbersBytes);
  line.str(kStackWin);
  line.hex_fields(static_cast<uint32_t>(fields.type), fields.rva, fields.code_size);
  for (const auto size : kStackWinSizes) line.chr(' ').hex(fields.*size);
  if (fields.has_program) {
    line.str(" 1 ").name(fields.program_string);
  } else {
    line.str(" 0 ").chr(fields.allocates_base_pointer ? '1' : '0');
  }
  line.chr('\n');
}

bool quick_parse(const char* line, const char* end, StackWinFields* fields) {
  if (!starts_with(line, end, kStackWin)) return false;
  NumberCursor cursor(line + kStackWin.size(), end);
  uint64_t type = 0, has_program = 0;
  if (!cursor.hex(&type) || !blank_and_hex(cursor, &fields->rva) ||
      !blank_and_hex(cursor, &fields->code_size)) {
    return false;
  }
  for (const auto size : kStackWinSizes) {
    if (!blank_and_hex(cursor, &(fields->*size))) return false;
  }
  fields->type = static_cast<int>(type);
  fields->allocates_base_pointer = false;
  fields->program_string = {};
  if (static_cast<unsigned>(fields->type) >= WindowsFrameInfo::STACK_INFO_LAST) return false;
  if (!blank_and_hex(cursor, &has_program)) return false;
  fields->has_program = has_program != 0;
  if (fields->has_program) return rest_of_line(cursor, end, &fields->program_string);
  uint64_t allocates = 0;
  if (!blank_and_hex(cursor, &allocates)) return false;
  fields->allocates_base_pointer = allocates != 0;
  return cursor.at() == end;
}

bool parse(char* stack_info, char* end, StackWinFields* fields) {
  *end = '\0';
  std::vector<char*> tokens;
  if (!Tokenize(stack_info, kWhitespace, 11, &tokens)) return false;
  fields->type = static_cast<int>(strtol(tokens[0], nullptr, 16));
  if (static_cast<unsigned>(fields->type) >= WindowsFrameInfo::STACK_INFO_LAST) return false;
  fields->rva = strtoull(tokens[1], nullptr, 16);
  fields->code_size = strtoull(tokens[2], nullptr, 16);
  size_t next = 3;
  for (const auto size : kStackWinSizes) fields->*size = parse_hex32(tokens[next++]);
  fields->has_program = strtoul(tokens[9], nullptr, 16) != 0;
  fields->program_string = fields->has_program ? tokens[10] : "";
  fields->allocates_base_pointer = !fields->has_program && strtoul(tokens[10], nullptr, 16) != 0;
  return true;
}

LineWriter& put_cfi_init(LineWriter& line, uint64_t address, uint64_t size) {
  return line.str(kStackCfi).str(kInit).hex_fields(address, size);
}

LineWriter& put_cfi_delta(LineWriter& line, uint64_t address) {
  return line.str(kStackCfi).hex(address);
}

void append_line(TextBuffer& out, const StackCFIFields& fields) {
  LineWriter line(out, fields.rules.size() + kCfiPrefixBytes);
  if (fields.is_init) {
    put_cfi_init(line, fields.address, fields.size);
  } else {
    put_cfi_delta(line, fields.address);
  }
  line.chr(' ').name(fields.rules).chr('\n');
}

bool quick_parse(const char* line, const char* end, StackCFIFields* fields) {
  if (!starts_with(line, end, kStackCfi)) return false;
  const char* at = line + kStackCfi.size();
  fields->is_init = starts_with(at, end, kInit);
  if (fields->is_init) at += kInit.size();
  NumberCursor cursor(at, end);
  if (!cursor.hex(&fields->address)) return false;
  fields->size = 0;
  if (fields->is_init && !blank_and_hex(cursor, &fields->size)) return false;
  return rest_of_line(cursor, end, &fields->rules);
}

bool parse(char* stack_info, char* end, StackCFIFields* fields) {
  *end = '\0';
  char* position = nullptr;
  const char* word = strtok_r(stack_info, kWhitespace, &position);
  if (word == nullptr) return false;
  fields->is_init = strcmp(word, "INIT") == 0;
  const char* address = fields->is_init ? strtok_r(nullptr, kWhitespace, &position) : word;
  if (address == nullptr) return false;
  const char* size = fields->is_init ? strtok_r(nullptr, kWhitespace, &position) : "0";
  if (size == nullptr) return false;
  const char* rules = strtok_r(nullptr, "\r\n", &position);
  if (rules == nullptr) return false;
  fields->address = strtoul(address, nullptr, 16);
  fields->size = strtoul(size, nullptr, 16);
  fields->rules = rules;
  return true;
}

std::string join_cfi_rules(std::string_view rules, std::string_view changes) {
  // A rule is a word that ends with a colon, and the words up to the next such word.
  std::vector<std::pair<std::string_view, std::string>> joined;
  std::unordered_map<std::string_view, size_t, TextHash> index;
  for (std::string_view rest : {rules, changes}) {
    size_t current = joined.size();
    while (true) {
      rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
      if (rest.empty()) break;
      const std::string_view word = rest.substr(0, rest.find(' '));
      rest.remove_prefix(word.size());
      if (word.ends_with(':')) {
        const auto [found, is_new] = index.try_emplace(word, joined.size());
        if (is_new) joined.emplace_back();
        current = found->second;
        joined[current] = {word, {}};
      } else if (current < joined.size()) {
        joined[current].second.append(" ").append(word);
      }
    }
  }
  std::string text;
  for (const auto& [name, rule] : joined) {
    text.append(text.empty() ? "" : " ").append(name).append(rule);
  }
  return text;
}

}  // namespace symforge_internal
