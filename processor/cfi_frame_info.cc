#include "processor/cfi_frame_info.h"

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <utility>

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
  if (has_single_blanks) return std::string(expression);
  std::string joined;
  joined.reserve(expression.size());
  for (const char c : expression) {
    if (!is_separator(c)) {
      joined += c;
    } else if (joined.back() != ' ') {  // an expression begins with a token
      joined += ' ';
    }
  }
  return joined;
}

// Removes the next token and returns it; empty at the end.
std::string_view CFIRuleCursor::NextToken() {
  const char* at = rest_.data();
  const char* const end = at + rest_.size();
  while (at != end && is_separator(*at)) ++at;
  const char* const begin = at;
  while (at != end && !is_separator(*at)) ++at;
  rest_ = {at, static_cast<size_t>(end - at)};
  return {begin, static_cast<size_t>(at - begin)};
}

CFIRuleCursor::Result CFIRuleCursor::Next(CFIRule* rule) {
  const std::string_view name = token_;
  if (name.empty() && !std::exchange(is_first_, false)) return Result::kEnd;
  is_first_ = false;
  if (name.size() < 2 || name.back() != ':') return Result::kMalformed;
  const char* begin = nullptr;
  const char* end = nullptr;
  bool has_single_blanks = true;
  for (token_ = NextToken(); !token_.empty() && token_.back() != ':'; token_ = NextToken()) {
    if (begin == nullptr) {
      begin = token_.data();
    } else if (token_.data() != end + 1 || *end != ' ') {
      has_single_blanks = false;
    }
    end = token_.data() + token_.size();
  }
  const bool colon_alone = token_.size() == 1;
  if (begin == nullptr || colon_alone) return Result::kMalformed;
  *rule = {name.substr(0, name.size() - 1),
           {begin, static_cast<size_t>(end - begin)},
           has_single_blanks};
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
