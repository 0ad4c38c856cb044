// Converts a SYMB block to text: checks the references, then prints the tables in order. The block
// is only read.

#include <cstring>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/limits.h"
#include "base/open_addressing_index.h"
#include "base/text_buffer.h"
#include "common/published_function.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "common/symb_text.h"
#include "common/symbol_text.h"

namespace symforge_internal {
namespace {

// Prints a block. All access is through records() or string(), which fail for anything outside the
// block. Tables may be unaligned, so records are copied out one by one.
class Printer {
 public:
  Printer(const char* block, uint64_t size, TextBuffer& text)
      : block_(block), size_(size), budget_(limits::kRecordsOfSymb.of(size)), text_(text) {}

  bool print() {
    load_header();
    return identity() && sections() && files(text_) && symbols() && stack_win() && stack_cfi();
  }

  // The published form. Only files used by lines or calls are written.
  bool print_standard() {
    is_standard_ = true;
    load_header();
    if (!identity()) return false;
    const size_t tables = text_.size();
    if (!standard_functions() || !standard_tables(tables)) return false;
    return publics() && stack_win() && stack_cfi();
  }

 private:
  void load_header() {
    header_ = {};
    const bool has_sections = symb_has_sections(symb_load<symb_header_metadata>(block_).version);
    std::memcpy(&header_, block_, has_sections ? sizeof(symb_header_v2) : sizeof(symb_header_v1));
  }

  // Sets `*first` to the records of a table; to null if `count` is 0.
  bool records(uint64_t offset, uint64_t count, size_t record_size, const char** first) const {
    if (count != 0 && (offset == 0 || !symb_holds(size_, offset, count, record_size))) return false;
    *first = count != 0 ? block_ + offset : nullptr;
    return true;
  }

  bool string(uint64_t offset, std::string_view* text) const {
    if (offset >= size_) return false;
    const char* begin = block_ + offset;
    const void* end = std::memchr(begin, '\0', size_ - offset);
    if (end == nullptr) return false;
    *text = {begin, static_cast<size_t>(static_cast<const char*>(end) - begin)};
    return true;
  }

  // Consumes the budget of printed lines and ranges. Functions may share lines, and ranges may
  // share nested ranges, so without a limit a small damaged block could produce endless output.
  bool consume_budget(uint64_t records) {
    if (records > budget_) return false;
    budget_ -= records;
    return true;
  }

  bool identity();
  bool sections();
  bool files(TextBuffer& out);
  bool symbols();
  template <typename Function>
  bool merged(const char* function, const char* public_function);
  bool outputFunction(const symb_func& function);
  bool outputFunctionInline(const symb_func_inline& function);
  bool outputPublicFunction(const symb_public& symbol);
  bool function_line(const symb_func& function);
  bool lines(const symb_func& function);
  bool standard_functions();
  bool standard_function(const symb_func_inline& function);
  bool standard_tables(size_t at);
  bool standard_origins(TextBuffer& out);
  bool publics();
  bool stack_win();
  bool enter_map(const symb_nested_window_frame_info& owner);
  bool outputWindowFrameInfo(const symb_nested_window_frame_info& range);
  bool stack_cfi();
  bool initial_rule(const symb_cfi_rule& rule, const char* changes);
  bool delta_rule(const symb_cfi_delta_rule& rule);

  // The rest of an array of frame info ranges, still to be printed.
  struct Array {
    const char* next;
    const char* end;
  };

  const char* block_;
  uint64_t size_;
  uint64_t budget_;
  TextBuffer& text_;
  symb_header header_;
  std::vector<Array> path_;  // from a root to the current range

  // For the published form.
  bool is_standard_ = false;
  PublishedFunction published_;
  Allowance parts_;
  OpenAddressingIndex used_files_;                     // numbers of files, each with 1
  std::unordered_map<uint64_t, long> origin_numbers_;  // by reference
  std::vector<uint64_t> origins_;                      // by number
};

bool Printer::identity() {
  const symb_header_v1& header = header_.v1;
  ModuleFields module;
  if (!string(header.os, &module.os) || !string(header.arch, &module.arch) ||
      !string(header.debug_id, &module.debug_id) ||
      !string(header.debug_file, &module.debug_file)) {
    return false;
  }
  append_line(text_, module);
  if (header.code_id == 0 || header.code_file == 0) return true;
  CodeIdFields code;
  if (!string(header.code_id, &code.code_id) || !string(header.code_file, &code.code_file)) {
    return false;
  }
  append_line(text_, code);
  return true;
}

bool Printer::sections() {
  const char* at;
  if (!records(header_.sections, header_.section_count, sizeof(symb_section), &at)) return false;
  for (uint64_t i = 0; i < header_.section_count; ++i, at += sizeof(symb_section)) {
    const auto section = symb_load<symb_section>(at);
    append_line(text_, SectionFields{i, section.virtaddr, section.rawsize, {}});
  }
  return true;
}

bool Printer::files(TextBuffer& out) {
  const uint64_t count = header_.v1.file_count;
  const char* at;
  if (!records(header_.v1.files, count, sizeof(symb_file), &at)) return false;
  for (uint64_t i = 0; i < count; ++i, at += sizeof(symb_file)) {
    const auto file = symb_load<symb_file>(at);
    std::string_view name;
    if (!string(file.name, &name)) return false;
    const bool is_used = !is_standard_ || used_files_.find(static_cast<uint32_t>(file.index)) != 0;
    if (is_used) append_line(out, FileFields{file.index, name});
  }
  return true;
}

bool Printer::symbols() {
  const bool has_inline = symb_has_inlines(header_.v1.md.version);
  const char* function;
  const char* public_function;
  if (!records(header_.v1.functions, header_.v1.function_count,
               has_inline ? sizeof(symb_func_inline) : sizeof(symb_func), &function) ||
      !records(header_.v1.public_functions, header_.v1.public_function_count, sizeof(symb_public),
               &public_function)) {
    return false;
  }
  return has_inline ? merged<symb_func_inline>(function, public_function)
                    : merged<symb_func>(function, public_function);
}

// Prints functions and publics by address; a function precedes a public at the same address.
template <typename Function>
bool Printer::merged(const char* function, const char* public_function) {
  uint64_t functions_left = header_.v1.function_count;
  uint64_t publics_left = header_.v1.public_function_count;
  while (functions_left != 0 || publics_left != 0) {
    if (publics_left == 0 ||
        (functions_left != 0 &&
         symb_load<uint32_t>(function + offsetof(symb_func, address)) <=
             symb_load<uint32_t>(public_function + offsetof(symb_public, address)))) {
      const auto record = symb_load<Function>(function);
      if constexpr (sizeof(Function) == sizeof(symb_func)) {
        if (!outputFunction(record)) return false;
      } else {
        if (!outputFunctionInline(record)) return false;
      }
      function += sizeof(Function);
      --functions_left;
    } else {
      if (!outputPublicFunction(symb_load<symb_public>(public_function))) return false;
      public_function += sizeof(symb_public);
      --publics_left;
    }
  }
  return true;
}

bool Printer::outputPublicFunction(const symb_public& symbol) {
  PublicFields fields = {false, symbol.address, static_cast<uint32_t>(symbol.parameter_size), {}};
  if (!string(symbol.name, &fields.name)) return false;
  append_line(text_, fields);
  return true;
}

bool Printer::function_line(const symb_func& function) {
  FunctionFields fields = {
      false, {}, function.address, function.size, static_cast<uint32_t>(function.parameter_size),
      {}};
  if (!string(function.name, &fields.name)) return false;
  append_line(text_, fields);
  return true;
}

bool Printer::lines(const symb_func& function) {
  const char* at;
  if (!records(function.lines, function.line_count, sizeof(symb_line), &at) ||
      !consume_budget(function.line_count)) {
    return false;
  }
  for (uint32_t i = 0; i < function.line_count; ++i, at += sizeof(symb_line)) {
    const auto line = symb_load<symb_line>(at);
    append_line(text_, LineFields{line.address, line.size, line.line, line.source_file_id});
  }
  return true;
}

bool Printer::outputFunction(const symb_func& function) {
  if (!function_line(function)) return false;
  return function.lines == 0 || function.line_count == 0 || lines(function);
}

// Inline sites of a function without lines are omitted: no reader of the text could use them.
bool Printer::outputFunctionInline(const symb_func_inline& function) {
  symb_func plain;
  static_assert(sizeof(plain) <= sizeof(function));
  std::memcpy(&plain, &function, sizeof(plain));
  if (!outputFunction(plain)) return false;
  if (function.lines == 0 || function.line_count == 0) return true;

  const char* at;
  if (!records(function.inlines, function.inline_count, sizeof(symb_inline), &at)) return false;
  for (uint32_t i = 0; i < function.inline_count; ++i, at += sizeof(symb_inline)) {
    const auto site = symb_load<symb_inline>(at);
    InlineFields fields = {site.address,        site.size,   site.line,
                           site.source_file_id, site.caller, {}};
    if (!string(site.name, &fields.name)) return false;
    append_line(text_, fields);
  }
  return true;
}

bool Printer::standard_functions() {
  parts_ = Allowance(limits::kParts.of(size_), "Functions are cut into too many parts");
  const bool has_inline = symb_has_inlines(header_.v1.md.version);
  const size_t record_size = has_inline ? sizeof(symb_func_inline) : sizeof(symb_func);
  const uint64_t count = header_.v1.function_count;
  const char* at;
  if (!records(header_.v1.functions, count, record_size, &at)) return false;
  for (uint64_t i = 0; i < count; ++i, at += record_size) {
    symb_func_inline function = {};
    std::memcpy(&function, at, record_size);
    if (!standard_function(function)) return false;
  }
  return true;
}

template <typename Record>
std::vector<Record> copied(const char* first, uint64_t count) {
  std::vector<Record> records(count);
  if (count != 0) std::memcpy(records.data(), first, count * sizeof(Record));
  return records;
}

bool Printer::standard_function(const symb_func_inline& function) {
  symb_func plain;
  std::memcpy(&plain, &function, sizeof(plain));
  if (!function_line(plain)) return false;
  if (plain.lines == 0 || plain.line_count == 0) return true;
  const char* first_line;
  const char* first_site;
  if (!records(plain.lines, plain.line_count, sizeof(symb_line), &first_line) ||
      !records(function.inlines, function.inline_count, sizeof(symb_inline), &first_site) ||
      !consume_budget(uint64_t{plain.line_count} + function.inline_count)) {
    return false;
  }
  const auto lines = copied<symb_line>(first_line, plain.line_count);
  const auto sites = copied<symb_inline>(first_site, function.inline_count);
  published_.convert(plain, lines, sites, limits::kFunctionParts.of(size_), parts_);

  for (const PublishedFunction::Call& call : published_.calls()) {
    const auto number = static_cast<long>(origins_.size());
    const auto [origin, is_new] = origin_numbers_.try_emplace(call.name, number);
    if (is_new) origins_.push_back(call.name);
    used_files_[static_cast<uint32_t>(call.file)] = 1;
    append_line(text_,
                InlineCallFields{call.depth, call.line, call.file, origin->second, call.ranges});
  }
  for (const symb_line& line : published_.line_records()) {
    used_files_[static_cast<uint32_t>(line.source_file_id)] = 1;
    append_line(text_, LineFields{line.address, line.size, line.line, line.source_file_id});
  }
  return true;
}

// Which files and callees there are is known when all functions are written. Their lines are
// inserted before those of the functions.
bool Printer::standard_tables(size_t at) {
  TextBuffer tables;
  const TextLimit limit(tables, limits::kTables.of(size_));
  if (!files(tables) || !standard_origins(tables)) return false;
  text_.insert(at, tables.view());
  return true;
}

bool Printer::standard_origins(TextBuffer& out) {
  for (size_t i = 0; i < origins_.size(); ++i) {
    InlineOriginFields fields = {static_cast<long>(i), {}};
    if (!string(origins_[i], &fields.name)) return false;
    append_line(out, fields);
  }
  return true;
}

bool Printer::publics() {
  const uint64_t count = header_.v1.public_function_count;
  const char* at;
  if (!records(header_.v1.public_functions, count, sizeof(symb_public), &at)) return false;
  for (uint64_t i = 0; i < count; ++i, at += sizeof(symb_public)) {
    if (!outputPublicFunction(symb_load<symb_public>(at))) return false;
  }
  return true;
}

// Types in descending order; within a type, outer ranges before inner ones. Not recursive, because
// a file can nest ranges arbitrarily deep.
bool Printer::stack_win() {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  const uint64_t count = header_.v1.windows_frame_info_count;
  const char* roots;
  if (!records(header_.v1.windows_frame_info, count, kRecord, &roots)) return false;
  for (uint64_t type = count; type-- > 0;) {
    const auto root = symb_load<symb_nested_window_frame_info>(roots + type * kRecord);
    if (root.map != 0 && !enter_map(root)) return false;
    while (!path_.empty()) {
      Array& array = path_.back();
      if (array.next == array.end) {
        path_.pop_back();
        continue;
      }
      const auto range = symb_load<symb_nested_window_frame_info>(array.next);
      array.next += kRecord;
      if (!outputWindowFrameInfo(range) || !enter_map(range)) return false;
    }
  }
  return true;
}

bool Printer::enter_map(const symb_nested_window_frame_info& owner) {
  constexpr size_t kRecord = sizeof(symb_nested_window_frame_info);
  if (owner.map_count == 0) return true;
  const char* first;
  if (!records(owner.map, owner.map_count, kRecord, &first) || !consume_budget(owner.map_count)) {
    return false;
  }
  path_.push_back({first, first + owner.map_count * kRecord});
  return true;
}

bool Printer::outputWindowFrameInfo(const symb_nested_window_frame_info& range) {
  const symb_window_frame_info& info = range.wfi;
  StackWinFields fields;
  fields.type = info.type;
  fields.rva = range.base;
  fields.code_size = range.address + 1 - range.base;
  static_cast<google_breakpad::StackWinSizes&>(fields) = symb_sizes(info);
  fields.allocates_base_pointer = info.allocates_base_pointer != 0;
  fields.has_program = info.program_string != 0;
  if (fields.has_program && !string(info.program_string, &fields.program_string)) return false;
  append_line(text_, fields);
  return true;
}

uint32_t delta_address(const char* delta) {
  return symb_load<uint32_t>(delta + offsetof(symb_cfi_delta_rule, address));
}

// Deltas follow the initial rule whose range contains them; others are dropped. The ends of ranges
// are 32-bit sums, as in the lookups.
bool Printer::stack_cfi() {
  const symb_header_v1& header = header_.v1;
  if (header.cfi_initial_rule_count == 0) return true;
  const char* initial;
  const char* delta;
  if (!records(header.cfi_initial_rules, header.cfi_initial_rule_count, sizeof(symb_cfi_rule),
               &initial) ||
      !records(header.cfi_delta_rules, header.cfi_delta_rule_count, sizeof(symb_cfi_delta_rule),
               &delta)) {
    return false;
  }
  const char* const deltas_end = delta + header.cfi_delta_rule_count * sizeof(symb_cfi_delta_rule);
  for (uint64_t i = 0; i < header.cfi_initial_rule_count; ++i, initial += sizeof(symb_cfi_rule)) {
    const auto rule = symb_load<symb_cfi_rule>(initial);
    while (delta != deltas_end && delta_address(delta) < rule.base) {
      delta += sizeof(symb_cfi_delta_rule);
    }
    const bool joins_first =
        is_standard_ && delta != deltas_end && rule.size != 0 && delta_address(delta) == rule.base;
    if (!initial_rule(rule, joins_first ? delta : nullptr)) return false;
    if (joins_first) delta += sizeof(symb_cfi_delta_rule);
    for (; delta != deltas_end && delta_address(delta) < rule.base + rule.size;
         delta += sizeof(symb_cfi_delta_rule)) {
      if (!delta_rule(symb_load<symb_cfi_delta_rule>(delta))) return false;
    }
  }
  return true;
}

// The published form merges changes at the start of a range into the initial rules.
bool Printer::initial_rule(const symb_cfi_rule& rule, const char* changes) {
  StackCFIFields fields = {true, rule.base, rule.size, {}};
  if (!string(rule.rule, &fields.rules)) return false;
  std::string joined;
  if (changes != nullptr) {
    std::string_view changed_rules;
    if (!string(symb_load<symb_cfi_delta_rule>(changes).rule, &changed_rules)) return false;
    joined = join_cfi_rules(fields.rules, changed_rules);
    fields.rules = joined;
  }
  append_line(text_, fields);
  return true;
}

bool Printer::delta_rule(const symb_cfi_delta_rule& rule) {
  StackCFIFields fields = {false, rule.address, 0, {}};
  if (!string(rule.rule, &fields.rules)) return false;
  append_line(text_, fields);
  return true;
}

}  // namespace

bool symb_read(const char* block, size_t size, TextBuffer& out, TextDialect dialect) {
  if (!std::string_view(block, size).starts_with(kSymbMagic)) return false;
  if (!symb_references_are_valid(block, size)) return false;
  const size_t before = out.size();
  try {
    const TextLimit limit(out, limits::kTextOfSymb.of(size));
    Printer printer(block, size, out);
    const bool is_standard = dialect == TextDialect::kStandard;
    if (is_standard ? printer.print_standard() : printer.print()) return true;
  } catch (const LimitExceeded&) {
    // Records that share one long string can require an excessive text.
  }
  out.truncate(before);
  return false;
}

}  // namespace symforge_internal

bool symb_read(char* in_buffer, size_t in_buffer_size, std::stringstream& out) {
  symforge_internal::TextBuffer text;
  if (!symforge_internal::symb_read(in_buffer, in_buffer_size, text)) return false;
  out.write(text.view().data(), static_cast<std::streamsize>(text.size()));
  return true;
}
