// CycleDetector: notices when a walk along links of a damaged file goes round in a circle.
//
//   CycleDetector<uint32_t> watch;
//   while (...) { if (watch.again(place)) break; place = next(place); }
//
// Each place is compared with one that was met before; the one to compare with moves on after 1, 2,
// 4, ... steps, so that it gets into any circle, and the walk ends after a few rounds at most. It
// takes no memory, and a walk without a circle costs it a comparison a step.

#pragma once

#include <cstdint>

namespace symforge_internal {

template <typename Place>
class CycleDetector {
 public:
  // Notes a place of the walk. True when it was met before, so that the walk goes in a circle; not
  // each repetition is noticed, but every circle is.
  bool again(Place place) {
    const bool met = steps_ != 0 && place == mark_;
    ++steps_;
    if ((steps_ & (steps_ - 1)) == 0) mark_ = place;
    return met;
  }

 private:
  uint64_t steps_ = 0;
  Place mark_{};
};

}  // namespace symforge_internal
