#include "processor/cfi_frame_info.h"

#include <algorithm>

#include "common/lookup_limits.h"

namespace google_breakpad {

namespace {

bool is_separator(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Returns the next token at or after `*at`, which is set to its end; empty at the end of the text.
std::string_view next_token(const char** at) {
  const char* begin = *at;
  while (is_separator(*begin)) ++begin;
  const char* end = begin;
  while (*end != '\0' && !is_separator(*end)) ++end;
  *at = end;
  return {begin, static_cast<size_t>(end - begin)};
}

}  // namespace

bool CFIRuleParser::Parse(const std::string& rule_set) {
  name_.clear();
  expression_.clear();

  const char* position = rule_set.c_str();
  for (std::string_view token; !(token = next_token(&position)).empty();) {
    if (token.back() == ':') {
      if (token.size() == 1) return false;
      if ((!name_.empty() || !expression_.empty()) && !Report()) return false;
      name_.assign(token.data(), token.size() - 1);
      expression_.clear();
    } else {
      if (!expression_.empty()) expression_ += ' ';
      expression_ += token;
    }
  }
  return Report();
}

bool CFIRuleParser::Report() {
  if (name_.empty() || expression_.empty()) return false;
  if (name_ == ".cfa") {
    handler_->CFARule(expression_);
  } else if (name_ == ".ra") {
    handler_->RARule(expression_);
  } else {
    handler_->RegisterRule(name_, expression_);
  }
  return true;
}

bool CFIRuleBudget::Take(std::string_view text) {
  using namespace symforge_internal;
  const auto rules = static_cast<uint64_t>(std::count(text.begin(), text.end(), ':'));
  const uint64_t cost = kRuleTextCost + kRuleCost * rules + text.size();
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
