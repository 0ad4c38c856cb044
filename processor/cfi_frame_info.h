// CFIRuleParser: splits the text of a STACK CFI rule set into named rules.
//
// A rule set is a sequence of rules "NAME: EXPRESSION", such as
//
//   .cfa: $esp 4 + .ra: .cfa 4 - ^ $ebp: .cfa 8 - ^
//
// Expressions are not evaluated. Runs of blanks in them become single blanks.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "google_breakpad/processor/cfi_frame_info.h"

namespace google_breakpad {

class CFIRuleParser {
 public:
  // Receives the rules.
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual void CFARule(const std::string& expression) = 0;
    virtual void RARule(const std::string& expression) = 0;
    virtual void RegisterRule(const std::string& name, const std::string& expression) = 0;
  };

  // `handler` is not owned and must outlive the parser.
  explicit CFIRuleParser(Handler* handler) : handler_(handler) {}

  // Passes each rule of `rule_set`, which ends at the first NUL, to the handler, in order. Returns
  // false if the text is empty or a rule lacks its name or expression; the rules before that one
  // have been passed on.
  bool Parse(std::string_view rule_set);

 private:
  bool Report();

  Handler* handler_;
  std::string name_;        // of the current rule
  std::string expression_;  // the expression so far
};

// Limits the rule sets that one lookup applies to kMaxRuleCost (common/lookup_limits.h).
class CFIRuleBudget {
 public:
  // Returns false if `text` exceeds the limit.
  bool Take(std::string_view text);

 private:
  uint64_t taken_ = 0;
};

// Stores the rules in a CFIFrameInfo, which it does not own. A later rule replaces an earlier one.
class CFIFrameInfoParseHandler : public CFIRuleParser::Handler {
 public:
  explicit CFIFrameInfoParseHandler(CFIFrameInfo* frame_info) : frame_info_(frame_info) {}
  void CFARule(const std::string& expression) override;
  void RARule(const std::string& expression) override;
  void RegisterRule(const std::string& name, const std::string& expression) override;

 private:
  CFIFrameInfo* frame_info_;
};

}  // namespace google_breakpad
