// RuleSetApplier: combines the STACK CFI rules of one lookup from the texts that apply.

#pragma once

#include <cstdint>
#include <memory_resource>
#include <string_view>
#include <vector>

#include "google_breakpad/processor/cfi_frame_info.h"
#include "processor/cfi_frame_info.h"

namespace google_breakpad {

// The texts must outlive the object. A rule becomes a string of the result only if no later one
// replaces it.
class RuleSetApplier {
 public:
  RuleSetApplier() { registers_.reserve(kUsualRules); }

  // Applies the text of a STACK CFI INIT line. Returns false if it is malformed or exceeds the cost
  // limit; the lookup then finds nothing.
  bool ApplyInitial(std::string_view rules) { return budget_.Take(rules) && Add(rules); }
  // Applies the text of a STACK CFI line, a malformed one up to its first error. Returns false only
  // if the texts so far exceed the cost limit; the lookup then finds nothing.
  bool ApplyDelta(std::string_view rules) {
    if (!budget_.Take(rules)) return false;
    Add(rules);
    return true;
  }
  // Returns the rules. The caller owns them.
  CFIFrameInfo* Release();

 private:
  struct RegisterRule {
    uint64_t prefix;  // the first 8 characters of the name, which compare like them
    size_t order;     // in the texts
    CFIRule rule;
  };
  static constexpr size_t kUsualRules = 24;

  bool Add(std::string_view rules);

  CFIRuleBudget budget_;
  CFIRule cfa_;
  CFIRule ra_;
  alignas(RegisterRule) char memory_[kUsualRules * sizeof(RegisterRule)];
  std::pmr::monotonic_buffer_resource resource_{memory_, sizeof(memory_)};
  std::pmr::vector<RegisterRule> registers_{&resource_};
};

}  // namespace google_breakpad
