// CFIRuleParser: takes the text of a STACK CFI rule set apart into named rules.
//
// A rule set is a sequence of rules "NAME: EXPRESSION", such as
//   .cfa: $esp 4 + .ra: .cfa 4 - ^ $ebp: .cfa 8 - ^
// Expressions are not evaluated; runs of blanks in them come out as one blank.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "google_breakpad/processor/cfi_frame_info.h"

namespace google_breakpad {

class CFIRuleParser {
 public:
  // What becomes of the rules.
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual void CFARule(const std::string& expression) = 0;
    virtual void RARule(const std::string& expression) = 0;
    virtual void RegisterRule(const std::string& name, const std::string& expression) = 0;
  };

  // `handler` is not owned and must outlive the parser.
  explicit CFIRuleParser(Handler* handler) : handler_(handler) {}

  // Hands each rule of `rule_set` to the handler, in order. False if the text is empty or has a
  // rule without a name or without an expression; rules before the bad one were handed over.
  bool Parse(const std::string& rule_set);

 private:
  bool Report();

  Handler* handler_;
  std::string name_;        // of the rule that is being gathered
  std::string expression_;  // its text so far
};

// Keeps the rule sets that one lookup applies within kMaxRuleCost (common/lookup_limits.h).
class CFIRuleBudget {
 public:
  // False if the text is too much.
  bool Take(std::string_view text);

 private:
  uint64_t taken_ = 0;
};

// Stores the rules in a CFIFrameInfo, which is not owned. A later rule replaces an earlier one.
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
