// RuleSetApplier: the STACK CFI rules of one lookup, put together from the texts that apply.

#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "google_breakpad/processor/cfi_frame_info.h"
#include "processor/cfi_frame_info.h"
#include "processor/source_line_resolver_base_types.h"

namespace google_breakpad {

class RuleSetApplier {
 public:
  // `module` parses the texts; it must outlive this object.
  explicit RuleSetApplier(const SourceLineResolverBase::Module& module) : module_(module) {}

  // The text of a STACK CFI INIT line. False if it is malformed or beyond what a lookup may cost:
  // nothing is found.
  bool ApplyInitial(std::string_view rules) {
    return budget_.Take(rules) && module_.ParseCFIRuleSet(std::string(rules), info_.get());
  }
  // The text of a STACK CFI line. A malformed one counts as far as it is good. False only if the
  // texts so far are beyond what a lookup may cost: nothing is found.
  bool ApplyDelta(std::string_view rules) {
    if (!budget_.Take(rules)) return false;
    module_.ParseCFIRuleSet(std::string(rules), info_.get());
    return true;
  }
  // The rules, which the caller owns.
  CFIFrameInfo* Release() { return info_.release(); }

 private:
  const SourceLineResolverBase::Module& module_;
  CFIRuleBudget budget_;
  std::unique_ptr<CFIFrameInfo> info_ = std::make_unique<CFIFrameInfo>();
};

}  // namespace google_breakpad
