#include "processor/cfi_frame_info.h"

#include <algorithm>

#include "common/lookup_limits.h"

namespace google_breakpad {

namespace {

bool is_separator(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Removes the next token from `*text` and returns it; empty at the end of the text.
std::string_view next_token(std::string_view* text) {
  size_t begin = 0;
  while (begin < text->size() && is_separator((*text)[begin])) ++begin;
  size_t end = begin;
  while (end < text->size() && !is_separator((*text)[end])) ++end;
  const std::string_view token = text->substr(begin, end - begin);
  text->remove_prefix(end);
  return token;
}

}  // namespace

bool CFIRuleParser::Parse(std::string_view rule_set) {
  name_.clear();
  expression_.clear();

  std::string_view rest = rule_set.substr(0, rule_set.find('\0'));
  for (std::string_view token; !(token = next_token(&rest)).empty();) {
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
