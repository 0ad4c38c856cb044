#include "symforge/src/driver/symbol_check.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "common/symbol_text.h"

namespace symforge_internal {

namespace {

constexpr char kOutsideOfFunction[] = "outside of a function";
constexpr char kOverlaps[] = "overlaps another one";
constexpr char kLeavesFunction[] = "leaves its function";
constexpr char kLeavesRules[] = "is not inside of the STACK CFI INIT range before it";
constexpr char kLeavesImage[] = "leaves the image";

struct Range {
  uint64_t begin;
  uint64_t end;  // one past the last byte
  uint64_t line;
};

bool begins_earlier(const Range& a, const Range& b) { return a.begin < b.begin; }

// The end of a range; UINT64_MAX for one that wraps.
uint64_t end_of(uint64_t address, uint64_t size) {
  return size > UINT64_MAX - address ? UINT64_MAX : address + size;
}

bool has_only(std::string_view word, std::string_view characters) {
  return !word.empty() && word.find_first_not_of(characters) == std::string_view::npos;
}

// Whether words are numbers: 'h' hexadecimal, 'd' decimal, one for each word. The parsers take
// other words for 0 in some kinds of lines.
bool begins_with_numbers(std::string_view words, std::string_view kinds) {
  for (const char kind : kinds) {
    words.remove_prefix(std::min(words.find_first_not_of(' '), words.size()));
    const std::string_view word = words.substr(0, words.find(' '));
    words.remove_prefix(word.size());
    if (!has_only(word, kind == 'h' ? "0123456789abcdefABCDEF" : "0123456789")) return false;
  }
  return true;
}

class Checker {
 public:
  Checker(SymbolCheck& result, std::optional<uint64_t> image_size)
      : result_(result), image_end_(image_size.value_or(UINT64_MAX)) {}

  // `end` is the end of the line, where a byte can be overwritten.
  void take_line(char* line, char* end);
  void finish();

 private:
  using Kind = LineKind;

  void count(Kind kind) { ++result_.counts[static_cast<size_t>(kind)]; }
  void malformed(const char* reason) { result_.add_malformed(line_, reason); }
  void bad_range(uint64_t line, Kind kind, const Range& range, const char* reason);
  // Reports a range that leaves the image.
  void check_image(Kind kind, const Range& range);
  void check_delta(uint64_t address);
  void check_overlaps(Kind kind, std::vector<Range>& ranges);
  void check_nesting(std::vector<Range>& ranges);

  const char* take_module(std::string_view line);
  const char* take_file(char* line, char* end);
  const char* take_origin(char* line, char* end);
  const char* take_function(char* line, char* end);
  const char* take_inline_call(char* line, char* end);
  const char* take_inline(char* line, char* end);
  const char* take_record(char* line, char* end);
  const char* take_public(char* line, char* end);
  const char* take_stack(char* line, char* end);
  const char* take_win(char* line, char* end);
  const char* take_cfi(char* line, char* end);
  const char* take_by_keyword(std::string_view text, char* line, char* end);
  const char* take(char* line, char* end);
  void finish_function();
  Range range_of(uint64_t address, uint64_t size) const {
    return {address, end_of(address, size), line_};
  }

  SymbolCheck& result_;
  const uint64_t image_end_;
  uint64_t line_ = 0;  // number of the current one
  bool in_function_ = false;
  std::vector<Range> functions_;
  std::vector<Range> records_;    // of the current function
  std::vector<Range> rules_;      // STACK CFI INIT
  std::vector<Range> frames_[5];  // STACK WIN, by type
  std::vector<InlineCallFields::Range> call_ranges_;
};

void Checker::bad_range(uint64_t line, Kind kind, const Range& range, const char* reason) {
  ++result_.bad_ranges;
  if (result_.bad_range_lines.size() == SymbolCheck::kMaxExamples) return;
  result_.bad_range_lines.push_back({line, kind, range.begin, range.end - range.begin, reason});
}

void Checker::check_image(Kind kind, const Range& range) {
  if (range.end > image_end_ || range.end == UINT64_MAX) {
    bad_range(range.line, kind, range, kLeavesImage);
  }
}

void Checker::check_delta(uint64_t address) {
  const bool inside =
      !rules_.empty() && address >= rules_.back().begin && address < rules_.back().end;
  if (!inside) bad_range(line_, Kind::kStackCfi, range_of(address, 0), kLeavesRules);
}

// Ranges that must be disjoint; sorts them.
void Checker::check_overlaps(Kind kind, std::vector<Range>& ranges) {
  if (!std::is_sorted(ranges.begin(), ranges.end(), begins_earlier)) {
    std::stable_sort(ranges.begin(), ranges.end(), begins_earlier);
  }
  uint64_t end = 0;
  for (const Range& range : ranges) {
    if (range.begin < end && range.begin != range.end) {
      bad_range(range.line, kind, range, kOverlaps);
    }
    end = std::max(end, range.end);
  }
}

// Ranges that may contain others, but not cross them.
void Checker::check_nesting(std::vector<Range>& ranges) {
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) {
    return a.begin != b.begin ? a.begin < b.begin : a.end > b.end;
  });
  std::vector<uint64_t> open_ends;
  for (const Range& range : ranges) {
    while (!open_ends.empty() && open_ends.back() <= range.begin) open_ends.pop_back();
    if (!open_ends.empty() && range.end > open_ends.back()) {
      bad_range(range.line, Kind::kStackWin, range, kOverlaps);
    } else {
      open_ends.push_back(range.end);
    }
  }
}

void Checker::finish_function() {
  if (!in_function_) return;
  in_function_ = false;
  if (records_.empty()) ++result_.functions_without_lines;
  const Range& function = functions_.back();
  for (const Range& record : records_) {
    if (record.begin < function.begin || record.end > function.end) {
      bad_range(record.line, Kind::kLine, record, kLeavesFunction);
    }
  }
  check_overlaps(Kind::kLine, records_);
  records_.clear();
}

const char* Checker::take_module(std::string_view line) {
  count(Kind::kModule);
  if (result_.counts[static_cast<size_t>(Kind::kModule)] > 1) return "a second MODULE line";
  sym_info info;
  if (!sym_info_parse(std::string(line).append("\n").c_str(), info)) {
    return "not MODULE OS ARCH ID NAME";
  }
  return nullptr;
}

const char* Checker::take_file(char* line, char* end) {
  count(Kind::kFile);
  FileFields fields;
  const bool parsed = quick_parse(line, end, &fields) || parse(line, end, &fields);
  return parsed ? nullptr : "not FILE NUMBER NAME";
}

const char* Checker::take_origin(char* line, char* end) {
  count(Kind::kInlineOrigin);
  InlineOriginFields fields;
  return parse(line, end, &fields) ? nullptr : "not INLINE_ORIGIN NUMBER NAME";
}

const char* Checker::take_function(char* line, char* end) {
  count(Kind::kFunction);
  finish_function();
  FunctionFields fields;
  if (!quick_parse(line, end, &fields) && !parse(line, end, &fields)) {
    return "not FUNC [m] [SECTION:]ADDRESS SIZE PARAMETER_SIZE NAME";
  }
  if (fields.section) result_.own_dialect = true;
  in_function_ = true;
  functions_.push_back(range_of(fields.address, fields.size));
  check_image(Kind::kFunction, functions_.back());
  return nullptr;
}

const char* Checker::take_inline_call(char* line, char* end) {
  count(Kind::kInlineCall);
  InlineCallFields fields;
  if (!parse(line, end, &fields, &call_ranges_)) {
    return "not INLINE DEPTH CALL_LINE CALL_FILE ORIGIN [ADDRESS SIZE]+";
  }
  if (!in_function_) return kOutsideOfFunction;
  const Range& function = functions_.back();
  for (const InlineCallFields::Range& each : call_ranges_) {
    const Range range = range_of(each.address, each.size);
    if (range.begin >= function.begin && range.end <= function.end) continue;
    bad_range(line_, Kind::kInlineCall, range, kLeavesFunction);
  }
  return nullptr;
}

const char* Checker::take_inline(char* line, char* end) {
  constexpr size_t kKeyword = 2;
  count(Kind::kInline);
  result_.own_dialect = true;
  InlineFields fields;
  const std::string_view words(line + kKeyword, static_cast<size_t>(end - line) - kKeyword);
  const bool parsed = quick_parse(line, end, &fields) ||
                      (begins_with_numbers(words, "hhddh") && parse(line, end, &fields));
  if (!parsed) return "not I ADDRESS SIZE LINE FILE DEPTH NAME";
  return in_function_ ? nullptr : kOutsideOfFunction;
}

const char* Checker::take_record(char* line, char* end) {
  LineFields fields;
  const char* quick_end = nullptr;
  const bool quick = quick_parse(line, end, &quick_end, &fields) && quick_end == end;
  if (!quick && !begins_with_numbers({line, static_cast<size_t>(end - line)}, "h")) {
    return "no known kind of line";
  }
  count(Kind::kLine);
  if (!quick && !parse(line, end, &fields)) return "not ADDRESS SIZE LINE FILE";
  if (!in_function_) return kOutsideOfFunction;
  records_.push_back(range_of(fields.address, fields.size));
  return nullptr;
}

const char* Checker::take_public(char* line, char* end) {
  count(Kind::kPublic);
  finish_function();
  PublicFields fields;
  if (!quick_parse(line, end, &fields) && !parse(line, end, &fields)) {
    return "not PUBLIC [m] ADDRESS PARAMETER_SIZE NAME";
  }
  if (fields.address >= image_end_) {
    bad_range(line_, Kind::kPublic, range_of(fields.address, 0), kLeavesImage);
  }
  return nullptr;
}

const char* Checker::take_win(char* line, char* end) {
  constexpr size_t kKeywords = 10;
  count(Kind::kStackWin);
  const std::string_view words(line + kKeywords, static_cast<size_t>(end - line) - kKeywords);
  StackWinFields fields;
  bool parsed = quick_parse(line, end, &fields);
  if (!parsed && begins_with_numbers(words, "hhhhhhhhhh")) {
    char* platform = nullptr;
    char* rest = nullptr;
    split_stack_line(line, end, &platform, &rest);
    parsed = parse(rest, end, &fields);
  }
  if (!parsed) {
    return "not STACK WIN TYPE RVA SIZE PROLOG EPILOG PARAMETERS SAVED LOCALS MAX_STACK "
           "HAS_PROGRAM PROGRAM_OR_FLAG";
  }
  if (fields.code_size == 0) return nullptr;
  const Range range = range_of(fields.rva, fields.code_size);
  frames_[fields.type].push_back(range);
  check_image(Kind::kStackWin, range);
  return nullptr;
}

const char* Checker::take_cfi(char* line, char* end) {
  constexpr size_t kKeywords = 10;
  std::string_view words(line + kKeywords, static_cast<size_t>(end - line) - kKeywords);
  const bool init = words.starts_with("INIT ");
  count(init ? Kind::kStackCfiInit : Kind::kStackCfi);
  if (init) words.remove_prefix(std::string_view("INIT ").size());
  StackCFIFields fields;
  bool parsed = quick_parse(line, end, &fields);
  if (!parsed && begins_with_numbers(words, init ? "hh" : "h")) {
    char* platform = nullptr;
    char* rest = nullptr;
    split_stack_line(line, end, &platform, &rest);
    parsed = parse(rest, end, &fields);
  }
  if (!parsed) {
    return init ? "not STACK CFI INIT ADDRESS SIZE RULES" : "not STACK CFI ADDRESS RULES";
  }
  if (!init) {
    check_delta(fields.address);
    return nullptr;
  }
  rules_.push_back(range_of(fields.address, fields.size));
  check_image(Kind::kStackCfiInit, rules_.back());
  return nullptr;
}

const char* Checker::take_stack(char* line, char* end) {
  finish_function();
  const std::string_view text(line, static_cast<size_t>(end - line));
  if (text.starts_with("STACK WIN ")) return take_win(line, end);
  if (text.starts_with("STACK CFI ")) return take_cfi(line, end);
  return "not STACK WIN or STACK CFI";
}

const char* Checker::take_by_keyword(std::string_view text, char* line, char* end) {
  if (text.starts_with("FUNC ")) return take_function(line, end);
  if (text.starts_with("INLINE ")) return take_inline_call(line, end);
  if (text.starts_with("I ")) return take_inline(line, end);
  if (text.starts_with("PUBLIC ")) return take_public(line, end);
  if (text.starts_with("STACK ")) return take_stack(line, end);
  if (text.starts_with("FILE ")) return take_file(line, end);
  if (text.starts_with("INLINE_ORIGIN ")) return take_origin(line, end);
  if (!text.starts_with("INFO ")) return take_record(line, end);
  count(Kind::kInfo);
  if (text.starts_with("INFO SECTION ")) result_.own_dialect = true;
  return nullptr;
}

// Returns why the line is malformed, or null.
const char* Checker::take(char* line, char* end) {
  const std::string_view text(line, static_cast<size_t>(end - line));
  if (text.find('\0') != std::string_view::npos) return "has a NUL byte";
  if (text.find('\xFF') != std::string_view::npos) return "has a byte 0xFF, which ends the text";
  if (text.find('\r') != std::string_view::npos) return "has a carriage return inside";
  const bool first = result_.counts[static_cast<size_t>(Kind::kModule)] == 0;
  if (text.starts_with("MODULE ")) return take_module(text);
  const char* const reason = take_by_keyword(text, line, end);
  return reason == nullptr && first ? "before the MODULE line" : reason;
}

void Checker::take_line(char* line, char* end) {
  ++line_;
  if (end != line && end[-1] == '\r') --end;
  if (end == line) return;
  if (const char* reason = take(line, end)) malformed(reason);
}

void Checker::finish() {
  finish_function();
  if (result_.counts[static_cast<size_t>(Kind::kModule)] == 0) {
    result_.add_malformed(1, "there is no MODULE line");
  }
  check_overlaps(Kind::kFunction, functions_);
  check_overlaps(Kind::kStackCfiInit, rules_);
  for (std::vector<Range>& frames : frames_) {
    check_nesting(frames);
    rules_.insert(rules_.end(), frames.begin(), frames.end());
  }
  std::sort(rules_.begin(), rules_.end(), begins_earlier);
  // Functions ascend: for each, the greatest end of the rules that begin at or before it.
  uint64_t end = 0;
  size_t next = 0;
  for (const Range& function : functions_) {
    for (; next < rules_.size() && rules_[next].begin <= function.begin; ++next) {
      end = std::max(end, rules_[next].end);
    }
    if (end <= function.begin) ++result_.functions_without_rules;
  }
}

}  // namespace

void SymbolCheck::add_malformed(uint64_t line, const char* reason) {
  ++malformed;
  if (malformed_lines.size() < kMaxExamples) malformed_lines.push_back({line, reason});
}

SymbolCheck check_symbol_text(TextBuffer& text, std::optional<uint64_t> image_size) {
  SymbolCheck result;
  sym_info_parse(text.c_str(), result.identity);
  Checker checker(result, image_size);
  char* at = text.data();
  char* const end = at + text.size();
  uint64_t lines = 0;
  while (at != end) {
    ++lines;
    auto* newline = static_cast<char*>(std::memchr(at, '\n', static_cast<size_t>(end - at)));
    checker.take_line(at, newline != nullptr ? newline : end);
    if (newline == nullptr) result.add_malformed(lines, "is not ended by a line feed");
    at = newline != nullptr ? newline + 1 : end;
  }
  checker.finish();
  return result;
}

}  // namespace symforge_internal
