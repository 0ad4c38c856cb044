#include "processor/text_module_loader.h"

#include <emmintrin.h>

#include <bit>
#include <cstring>
#include <new>
#include <utility>

#include "common/line_record_bytes.h"
#include "processor/logging.h"

namespace google_breakpad {

using symforge_internal::Arena;
using symforge_internal::FileFields;
using symforge_internal::FunctionFields;
using symforge_internal::InlineCallFields;
using symforge_internal::InlineFields;
using symforge_internal::InlineOriginFields;
using symforge_internal::LineFields;
using symforge_internal::LineRecordBytes;
using symforge_internal::PublicFields;
using symforge_internal::StackCFIFields;
using symforge_internal::StackWinFields;

namespace {

constexpr uint64_t kMaxErrorsPrinted = 10;

// The name of a site without an INLINE_ORIGIN line, as of a function without a name.
constexpr char kOmittedName[] = "<omitted>";

bool is_line_break(char c) { return c == '\n' || c == '\r'; }

// Whether a line record of the usual form may start with `c`.
bool starts_line_record(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

template <size_t kSize>
bool has_prefix(const char* line, const char (&prefix)[kSize]) {
  for (size_t i = 0; i + 1 < kSize; ++i) {
    if (line[i] != prefix[i]) return false;
  }
  return true;
}

}  // namespace

void TextModuleLoader::Load(char* buffer, size_t size) {
  if (size == 0) return;
  if (buffer[size - 1] != '\0') buffer[size - 1] = '\0';
  end_ = EndOfText(buffer, size);

  char* at = buffer;
  while (true) {
    while (is_line_break(*at)) ++at;
    if (at == end_) break;
    ++line_number_;
    at = LoadLine(at);
    if (at != end_) ++at;
  }
  FinishFunction();
  for (Function* function : unnamed_) NameSites(function);
  FinishStackWin();
}

// Returns the end of the last byte that is not NUL. NULs before it are replaced by "_" and count as
// one error of the whole text. A text that keeps the strings ends at its first NUL.
char* TextModuleLoader::EndOfText(char* buffer, size_t size) {
  if (strings_.in_text()) return static_cast<char*>(memchr(buffer, '\0', size));
  char* end = buffer + size;
  while (end != buffer && end[-1] == '\0') --end;
  bool found = false;
  char* nul = buffer;
  while ((nul = static_cast<char*>(memchr(nul, '\0', static_cast<size_t>(end - nul))))) {
    *nul++ = '_';
    found = true;
  }
  if (found) {
    LogParseError("Null terminator is not expected in the middle of the symbol data", 0);
  }
  return end;
}

// Returns the first carriage return or line feed at or after `line`, or the end of the text.
char* TextModuleLoader::LineEnd(char* line) {
  constexpr ptrdiff_t kBlock = sizeof(__m128i);
  for (; end_ - line >= kBlock; line += kBlock) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line));
    const __m128i ends = _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\n')),
                                      _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\r')));
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(ends));
    if (mask != 0) return line + std::countr_zero(mask);
  }
  while (line != end_ && !is_line_break(*line)) ++line;
  return line;
}

char* TextModuleLoader::LoadLine(char* line) {
  // Most lines are line records, and no prefix except "F" begins like a number.
  if (static_cast<unsigned char>(*line) <= '9' || *line >= 'a') return LoadLineRecords(line);
  return LoadOtherLine(line);
}

// Loads a line record and those that directly follow it, as long as they have the usual form.
char* TextModuleLoader::LoadLineRecords(char* line) {
  if (!quick_ || cur_func_ == nullptr) return LoadLineRecord(line);
  LineFields fields;
  while (end_ - line >= LineRecordBytes::kReadable) {
    const LineRecordBytes record(line);
    if (!record.parse(&fields)) break;
    StoreLine(fields);
    char* const end = line + (record.end() - line);
    if (*end != '\n' || !starts_line_record(end[1])) return end;
    line = end + 1;
    ++line_number_;
  }
  return LoadLineRecord(line);
}

char* TextModuleLoader::LoadOtherLine(char* line) {
  if (has_prefix(line, "I ")) {
    char* end = LineEnd(line);
    if (cur_func_ == nullptr) {
      LineError("Found source line data without a function");
    } else if (!ParseInlineFunction(line, end)) {
      LineError("ParseInlineFunction failed");
    }
    return end;
  }
  if (has_prefix(line, "INLINE ")) {
    char* end = LineEnd(line);
    if (cur_func_ == nullptr) {
      LineError("Found source line data without a function");
    } else if (!ParseInlineCall(line, end)) {
      LineError("ParseInlineCall failed");
    }
    return end;
  }
  if (has_prefix(line, "INLINE_ORIGIN ")) {
    char* end = LineEnd(line);
    if (!ParseInlineOrigin(line, end)) LineError("ParseInlineOrigin failed");
    return end;
  }
  if (has_prefix(line, "FUNC ")) {
    char* end = LineEnd(line);
    if (!ParseFunction(line, end)) LineError("ParseFunction failed");
    return end;
  }
  if (has_prefix(line, "STACK ")) {
    char* end = LineEnd(line);
    if (!ParseStackInfo(line, end)) LineError("ParseStackInfo failed");
    return end;
  }
  if (has_prefix(line, "PUBLIC ")) {
    char* end = LineEnd(line);
    FinishFunction();
    if (!ParsePublicSymbol(line, end)) LineError("ParsePublicSymbol failed");
    return end;
  }
  if (has_prefix(line, "FILE ")) {
    char* end = LineEnd(line);
    if (!ParseFile(line, end)) LineError("ParseFile on buffer failed");
    return end;
  }
  if (has_prefix(line, "MODULE ") || has_prefix(line, "INFO ")) return LineEnd(line);
  return LoadLineRecord(line);
}

char* TextModuleLoader::LoadLineRecord(char* line) {
  LineFields fields;
  const char* quick_end = nullptr;
  const bool quick = quick_ && cur_func_ != nullptr && quick_parse(line, end_, &quick_end, &fields);
  char* end = quick ? line + (quick_end - line) : LineEnd(line);
  if (cur_func_ == nullptr) {
    LineError("Found source line data without a function");
  } else if (quick || parse(line, end, &fields)) {
    StoreLine(fields);
  } else {
    LineError("ParseLine failed");
  }
  return end;
}

bool TextModuleLoader::ParseFile(char* line, char* end) {
  FileFields fields;
  if (!(quick_ && quick_parse(line, end, &fields)) && !parse(line, end, &fields)) return false;
  const int index = static_cast<int>(fields.index);
  if (module_.files_.find(index) == module_.files_.end()) {
    module_.files_.insert(index, strings_.store(fields.name));
  }
  return true;
}

bool TextModuleLoader::ParseFunction(char* line, char* end) {
  FinishFunction();
  FunctionFields fields;
  if (!(quick_ && quick_parse(line, end, &fields)) && !parse(line, end, &fields)) {
    return false;
  }
  Arena& arena = module_.arena_;
  void* memory = std::exchange(spare_func_, nullptr);
  if (memory == nullptr) memory = arena.allocate(sizeof(Function), alignof(Function));
  cur_func_ = new (memory) Function;
  cur_func_->address = fields.address;
  cur_func_->size = fields.size;
  cur_func_->parameter_size = static_cast<int32_t>(fields.stack_param_size);
  cur_func_->is_multiple = fields.is_multiple;
  cur_func_->has_inline_calls = false;
  cur_func_stored_ = module_.functions_.StoreRange(fields.address, fields.size, cur_func_);
  if (cur_func_stored_) cur_func_->name = strings_.store(fields.name);
  return true;
}

// Stores the records of the current function. Afterwards there is no current function.
void TextModuleLoader::FinishFunction() {
  if (cur_func_ == nullptr) return;
  if (!cur_func_stored_) {
    lines_.Clear();
    inlines_.Clear();
    calls_.Clear();
    spare_func_ = cur_func_;
  } else if (calls_.empty()) {
    cur_func_->records.Store(lines_.Sorted(), inlines_.Sorted(), numbers_, module_.arena_);
    inlines_.StoreNames(strings_, &cur_func_->records);
    lines_.Clear();
    inlines_.Clear();
  } else {
    StoreInlineCalls();
  }
  cur_func_ = nullptr;
}

// I lines of a function with INLINE lines are dropped, because they describe the same sites.
void TextModuleLoader::StoreInlineCalls() {
  calls_.Convert(*cur_func_, lines_.Sorted());
  lines_.Clear();
  inlines_.Clear();
  const auto& sites = calls_.sites();
  cur_func_->records.Store(calls_.own_lines(), sites, numbers_, module_.arena_);
  for (size_t i = 0; i < sites.size(); ++i) {
    const char* const name = origins_.find(InlineCallGatherer::OriginOf(sites[i]));
    if (name == nullptr) {
      while (i-- > 0) cur_func_->records.set_site_name(i, sites[i].name);
      unnamed_.push_back(cur_func_);
      break;
    }
    cur_func_->records.set_site_name(i, name);
  }
  cur_func_->has_inline_calls = true;
  calls_.Clear();
}

// Replaces the numbers of origins by their names.
void TextModuleLoader::NameSites(Function* function) {
  FunctionRecords& records = function->records;
  for (size_t i = 0; i < records.site_count(); ++i) {
    const char* const name = origins_.find(InlineCallGatherer::OriginOf(records.site(i)));
    records.set_site_name(i, name != nullptr ? name : kOmittedName);
  }
}

bool TextModuleLoader::ParsePublicSymbol(char* line, char* end) {
  PublicFields fields;
  if (!(quick_ && quick_parse(line, end, &fields)) && !parse(line, end, &fields)) return false;
  // Several symbols at address 0 would conflict, and none is useful.
  if (fields.address == 0) return true;
  return module_.public_symbols_.Store(
      fields.address, {strings_.store(fields.name), static_cast<int32_t>(fields.stack_param_size),
                       fields.is_multiple});
}

bool TextModuleLoader::ParseInlineFunction(char* line, char* end) {
  InlineFields fields;
  if (!(quick_ && quick_parse(line, end, &fields)) && !parse(line, end, &fields)) return false;
  SourceLineResolverBase::InlineFunction site;
  site.function_address = fields.address;
  site.code_size = fields.size;
  site.file_id = static_cast<int>(fields.source_file);
  site.source_line = static_cast<int>(fields.line_number);
  site.caller = fields.caller;
  site.name = nullptr;
  inlines_.Store(site, fields.name);
  return true;
}

bool TextModuleLoader::ParseInlineOrigin(char* line, char* end) {
  InlineOriginFields fields;
  if (!parse(line, end, &fields)) return false;
  const int index = static_cast<int>(fields.index);
  if (origins_.find(index) == nullptr) origins_.insert(index, strings_.store(fields.name));
  return true;
}

bool TextModuleLoader::ParseInlineCall(char* line, char* end) {
  InlineCallFields fields;
  if (!parse(line, end, &fields, &call_ranges_)) return false;
  calls_.Store(fields);
  return true;
}

bool TextModuleLoader::ParseStackInfo(char* line, char* end) {
  StackWinFields win;
  StackCFIFields cfi;
  if (quick_ && quick_parse(line, end, &cfi)) {
    StoreStackCFI(cfi);
    return true;
  }
  if (quick_ && quick_parse(line, end, &win)) {
    StoreStackWin(win);
    return true;
  }
  char* platform = nullptr;
  char* stack_info = nullptr;
  symforge_internal::split_stack_line(line, end, &platform, &stack_info);
  if (strcmp(platform, "WIN") == 0) {
    if (!parse(stack_info, end, &win)) return false;
    StoreStackWin(win);
    return true;
  }
  if (strcmp(platform, "CFI") == 0) {
    if (!parse(stack_info, end, &cfi)) return false;
    StoreStackCFI(cfi);
    return true;
  }
  return false;
}

void TextModuleLoader::StoreStackWin(const StackWinFields& fields) {
  // A module has few distinct programs, and equal ones are usually adjacent.
  if (fields.program_string != last_program_) {
    last_program_ = fields.program_string;
    last_program_kept_ = strings_.store(fields.program_string);
  }
  const MemAddr high = fields.rva + fields.code_size - 1;
  if (fields.code_size == 0 || high < fields.rva) return;
  StackWinRanges& ranges = stack_win_[static_cast<size_t>(fields.type)];
  ranges.extents.push_back({fields.rva, high});
  ranges.records.push_back({fields, fields.program_string.empty() ? "" : last_program_kept_,
                            static_cast<int8_t>(fields.type), fields.allocates_base_pointer});
}

// Determines which of the STACK WIN ranges the module keeps.
void TextModuleLoader::FinishStackWin() {
  for (size_t type = 0; type < stack_win_.size(); ++type) {
    StackWinRanges ranges = std::move(stack_win_[type]);
    if (ranges.extents.empty()) continue;
    module_.windows_frame_info_[type].StoreRanges(ranges.extents, ranges.records);
  }
}

void TextModuleLoader::StoreStackCFI(const StackCFIFields& fields) {
  const char* rules = strings_.store_repeated(fields.rules);
  if (fields.is_init) {
    module_.cfi_initial_rules_.StoreRange(fields.address, fields.size, rules);
  } else if (!module_.cfi_delta_rules_.insert(fields.address, rules)) {
    module_.cfi_delta_rules_.value_at(module_.cfi_delta_rules_.find(fields.address)) = rules;
  }
}

void TextModuleLoader::LogParseError(const char* message, uint64_t line_number) {
  BadLines& bad = module_.bad_lines_;
  if (bad.first == 0) bad.first = line_number;
  if (++bad.count > kMaxErrorsPrinted) return;
  if (line_number > 0) {
    SYMFORGE_LOG(ERROR) << "Line " << line_number << ": " << message;
  } else {
    SYMFORGE_LOG(ERROR) << message;
  }
}

}  // namespace google_breakpad
