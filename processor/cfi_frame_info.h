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

// One rule of a rule set.
struct CFIRule {
  std::string_view name;        // without the colon
  std::string_view expression;  // as in the text, without blanks around it

  // The expression with single blanks.
  std::string JoinedExpression() const;
};

// Splits a rule set without copying it.
class CFIRuleCursor {
 public:
  enum class Result { kRule, kEnd, kMalformed };

  // `rule_set` ends at the first NUL, and must outlive the rules.
  explicit CFIRuleCursor(std::string_view rule_set);

  // Sets `*rule` to the next rule. Returns kMalformed if the text is empty or the next rule lacks
  // its name or expression, also if a colon without a name follows it.
  Result Next(CFIRule* rule);

 private:
  void FindName(const char* from);

  const char* end_;
  // The next name, with its colon at `name_end_`. Both are `end_` if there is none.
  const char* name_begin_;
  const char* name_end_;
  bool is_malformed_ = false;  // the text does not begin with a name
};

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
  void Report(const CFIRule& rule);

  Handler* handler_;
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
