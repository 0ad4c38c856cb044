// RuleSetApplier: combines the STACK CFI rules of one lookup from the texts that apply.

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
  // `module` parses the texts and must outlive this object.
  explicit RuleSetApplier(const SourceLineResolverBase::Module& module) : module_(module) {}

  // Applies the text of a STACK CFI INIT line. Returns false if it is malformed or exceeds the cost
  // limit; the lookup then finds nothing.
  bool ApplyInitial(std::string_view rules) {
    return budget_.Take(rules) && module_.ParseCFIRuleSet(std::string(rules), info_.get());
  }
  // Applies the text of a STACK CFI line, a malformed one up to its first error. Returns false only
  // if the texts so far exceed the cost limit; the lookup then finds nothing.
  bool ApplyDelta(std::string_view rules) {
    if (!budget_.Take(rules)) return false;
    module_.ParseCFIRuleSet(std::string(rules), info_.get());
    return true;
  }
  // Returns the rules. The caller owns them.
  CFIFrameInfo* Release() { return info_.release(); }

 private:
  const SourceLineResolverBase::Module& module_;
  CFIRuleBudget budget_;
  std::unique_ptr<CFIFrameInfo> info_ = std::make_unique<CFIFrameInfo>();
};

}  // namespace google_breakpad
