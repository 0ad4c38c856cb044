// CFIFrameInfo: the rules of STACK CFI lines by which the caller's registers are recovered.

#pragma once

#include <map>
#include <string>

namespace google_breakpad {

// Rules are texts, expressions in postfix notation such as "$rsp 8 +"; they are not evaluated here.
// A plain value: nothing in it refers to the symbols that it came from.
class CFIFrameInfo {
 public:
  // Ordered by register name as it stands in the rule, "$rbp" with its dollar sign.
  using RuleMap = std::map<std::string, std::string>;

  // Each replaces the rule that was there.
  void SetCFARule(const std::string& expression) { cfa_rule_ = expression; }
  void SetRARule(const std::string& expression) { ra_rule_ = expression; }
  void SetRegisterRule(const std::string& name, const std::string& expression) {
    register_rules_[name] = expression;
  }

  // The rule of the canonical frame address, of the return address, of the other registers; empty
  // where there is none.
  const std::string& cfa_rule() const { return cfa_rule_; }
  const std::string& ra_rule() const { return ra_rule_; }
  const RuleMap& register_rules() const { return register_rules_; }

 private:
  std::string cfa_rule_;
  std::string ra_rule_;
  RuleMap register_rules_;
};

}  // namespace google_breakpad
