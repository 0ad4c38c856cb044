#include "processor/cfi_frame_info.h"

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "common/lookup_limits.h"

namespace google_breakpad {

namespace {

bool is_separator(char c) {
  return static_cast<unsigned char>(c) <= ' ' && (c == ' ' || c == '\t' || c == '\r' || c == '\n');
}

// The number of colons in a text.
uint64_t count_colons(std::string_view text) {
  constexpr size_t kStep = sizeof(__m128i);
  const __m128i colons = _mm_set1_epi8(':');
  uint64_t count = 0;
  size_t at = 0;
  for (; at + kStep <= text.size(); at += kStep) {
    const __m128i part = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at));
    const int equal = _mm_movemask_epi8(_mm_cmpeq_epi8(part, colons));
    count += static_cast<uint64_t>(std::popcount(static_cast<unsigned>(equal)));
  }
  return count + static_cast<uint64_t>(
                     std::count(text.begin() + static_cast<ptrdiff_t>(at), text.end(), ':'));
}

}  // namespace

std::string CFIRule::JoinedExpression() const {
  std::string joined(expression);
  bool has_single_blanks = true;  // the usual case; without branches
  for (size_t i = 1; i < joined.size(); ++i) {
    const bool other = is_separator(joined[i]) && (joined[i] != ' ' || is_separator(joined[i - 1]));
    has_single_blanks = has_single_blanks && !other;
  }
  if (has_single_blanks) return joined;
  joined.clear();
  for (const char c : expression) {
    if (!is_separator(c)) {
      joined += c;
    } else if (joined.back() != ' ') {  // an expression begins with a token
      joined += ' ';
    }
  }
  return joined;
}

CFIRuleCursor::CFIRuleCursor(std::string_view rule_set) {
  rule_set = rule_set.substr(0, rule_set.find('\0'));
  const char* begin = rule_set.data();
  end_ = begin + rule_set.size();
  while (begin != end_ && is_separator(*begin)) ++begin;
  FindName(begin);
  is_malformed_ = name_begin_ != begin || name_begin_ == name_end_;
}

// Finds the first token at or after the start of a token that ends with a colon.
void CFIRuleCursor::FindName(const char* from) {
  for (const char* at = from; at != end_; ++at) {
    at = static_cast<const char*>(std::memchr(at, ':', static_cast<size_t>(end_ - at)));
    if (at == nullptr) break;
    if (at + 1 != end_ && !is_separator(at[1])) continue;
    name_end_ = at;
    name_begin_ = at;
    while (name_begin_ != from && !is_separator(name_begin_[-1])) --name_begin_;
    return;
  }
  name_begin_ = name_end_ = end_;
}

CFIRuleCursor::Result CFIRuleCursor::Next(CFIRule* rule) {
  if (is_malformed_) return Result::kMalformed;
  if (name_begin_ == end_) return Result::kEnd;
  rule->name = {name_begin_, static_cast<size_t>(name_end_ - name_begin_)};
  const char* begin = name_end_ + 1;
  while (begin != end_ && is_separator(*begin)) ++begin;
  FindName(begin);
  const bool colon_alone = name_begin_ == name_end_ && name_begin_ != end_;
  const char* end = name_begin_;
  while (end != begin && is_separator(end[-1])) --end;
  if (begin == end || colon_alone) return Result::kMalformed;
  rule->expression = {begin, static_cast<size_t>(end - begin)};
  return Result::kRule;
}

bool CFIRuleParser::Parse(std::string_view rule_set) {
  CFIRuleCursor cursor(rule_set);
  while (true) {
    CFIRule rule;
    const CFIRuleCursor::Result result = cursor.Next(&rule);
    if (result != CFIRuleCursor::Result::kRule) return result == CFIRuleCursor::Result::kEnd;
    Report(rule);
  }
}

void CFIRuleParser::Report(const CFIRule& rule) {
  const std::string expression = rule.JoinedExpression();
  if (rule.name == ".cfa") {
    handler_->CFARule(expression);
  } else if (rule.name == ".ra") {
    handler_->RARule(expression);
  } else {
    handler_->RegisterRule(std::string(rule.name), expression);
  }
}

bool CFIRuleBudget::Take(std::string_view text) {
  using namespace symforge_internal;
  const uint64_t cost = kRuleTextCost + kRuleCost * count_colons(text) + text.size();
  if (cost > kMaxRuleCost - taken_) return false;
  taken_ += cost;
  return true;
}

void CFIFrameInfoParseHandler::CFARule(const std::string& expression) {
  frame_info_->SetCFARule(expression);
}

void CFIFrameInfoParseHandler::RARule(const std::string& expression) {
  frame_info_->SetRARule(expression);
}

void CFIFrameInfoParseHandler::RegisterRule(const std::string& name,
                                            const std::string& expression) {
  frame_info_->SetRegisterRule(name, expression);
}

}  // namespace google_breakpad
