// CFIFrameInfo: the rules of STACK CFI lines, with which an unwinder recovers the caller's
// registers.

#pragma once

#include <map>
#include <string>

namespace google_breakpad {

// Rules are postfix expressions as text, such as "$rsp 8 +". This class does not evaluate them. It
// is a plain value and does not refer to the symbols it was read from.
class CFIFrameInfo {
 public:
  // Keyed by register name as written in the rule, such as "$rbp" with its dollar sign.
  using RuleMap = std::map<std::string, std::string>;

  // Each setter replaces an existing rule.
  void SetCFARule(const std::string& expression) { cfa_rule_ = expression; }
  void SetRARule(const std::string& expression) { ra_rule_ = expression; }
  void SetRegisterRule(const std::string& name, const std::string& expression) {
    register_rules_.insert_or_assign(register_rules_.end(), name, expression);
  }

  // The rules of the canonical frame address (CFA), of the return address, and of the other
  // registers. Empty where no rule is set.
  const std::string& cfa_rule() const { return cfa_rule_; }
  const std::string& ra_rule() const { return ra_rule_; }
  const RuleMap& register_rules() const { return register_rules_; }

 private:
  std::string cfa_rule_;
  std::string ra_rule_;
  RuleMap register_rules_;
};

}  // namespace google_breakpad
