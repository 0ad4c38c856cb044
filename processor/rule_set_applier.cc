#include "processor/rule_set_applier.h"

#include <algorithm>
#include <memory>
#include <string>

namespace google_breakpad {

namespace {

uint64_t prefix_of(std::string_view name) {
  uint64_t prefix = 0;
  for (size_t i = 0; i < sizeof(prefix); ++i) {
    prefix = prefix << 8 | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0);
  }
  return prefix;
}

}  // namespace

bool RuleSetApplier::Add(std::string_view rules) {
  CFIRuleCursor cursor(rules);
  CFIRule rule;
  CFIRuleCursor::Result result = cursor.Next(&rule);
  for (; result == CFIRuleCursor::Result::kRule; result = cursor.Next(&rule)) {
    if (rule.name == ".cfa") {
      cfa_ = rule;
    } else if (rule.name == ".ra") {
      ra_ = rule;
    } else {
      registers_.push_back({prefix_of(rule.name), registers_.size(), rule});
    }
  }
  return result == CFIRuleCursor::Result::kEnd;
}

CFIFrameInfo* RuleSetApplier::Release() {
  const auto same_name = [](const RegisterRule& a, const RegisterRule& b) {
    return a.prefix == b.prefix && a.rule.name == b.rule.name;
  };
  // Names ascending; of one name the last rule first.
  std::sort(registers_.begin(), registers_.end(),
            [&same_name](const RegisterRule& a, const RegisterRule& b) {
              if (same_name(a, b)) return a.order > b.order;
              return a.prefix != b.prefix ? a.prefix < b.prefix : a.rule.name < b.rule.name;
            });
  auto info = std::make_unique<CFIFrameInfo>();
  info->SetCFARule(cfa_.JoinedExpression());
  info->SetRARule(ra_.JoinedExpression());
  const RegisterRule* last = nullptr;
  for (const RegisterRule& added : registers_) {
    if (last != nullptr && same_name(*last, added)) continue;
    info->SetRegisterRule(std::string(added.rule.name), added.rule.JoinedExpression());
    last = &added;
  }
  return info.release();
}

}  // namespace google_breakpad
