// RuleSetApplier: combines the STACK CFI rules of one lookup from the texts that apply.

#pragma once

#include <memory>
#include <string_view>

#include "google_breakpad/processor/cfi_frame_info.h"
#include "processor/cfi_frame_info.h"

namespace google_breakpad {

class RuleSetApplier {
 public:
  // Applies the text of a STACK CFI INIT line. Returns false if it is malformed or exceeds the cost
  // limit; the lookup then finds nothing.
  bool ApplyInitial(std::string_view rules) { return budget_.Take(rules) && Parse(rules); }
  // Applies the text of a STACK CFI line, a malformed one up to its first error. Returns false only
  // if the texts so far exceed the cost limit; the lookup then finds nothing.
  bool ApplyDelta(std::string_view rules) {
    if (!budget_.Take(rules)) return false;
    Parse(rules);
    return true;
  }
  // Returns the rules. The caller owns them.
  CFIFrameInfo* Release() { return info_.release(); }

 private:
  bool Parse(std::string_view rules) {
    CFIFrameInfoParseHandler handler(info_.get());
    return CFIRuleParser(&handler).Parse(rules);
  }

  CFIRuleBudget budget_;
  std::unique_ptr<CFIFrameInfo> info_ = std::make_unique<CFIFrameInfo>();
};

}  // namespace google_breakpad
