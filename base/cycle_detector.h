// CycleDetector: detects cycles while following links in a damaged file (Brent's algorithm).
//
//   CycleDetector<uint32_t> cycle;
//   while (...) { if (cycle.visit(node)) break; node = next(node); }
//
// Compares each node with a saved one, which is replaced after 1, 2, 4, ... steps. A walk into a
// cycle ends after a few rounds. Memory is constant, and each step costs one comparison.

#pragma once

#include <cstdint>

namespace symforge_internal {

template <typename Node>
class CycleDetector {
 public:
  // Records the next node of the walk. Returns true when it equals the saved node, which proves a
  // cycle. Not every repetition is reported, but every cycle is reported eventually.
  bool visit(Node node) {
    const bool repeated = steps_ != 0 && node == saved_;
    ++steps_;
    if ((steps_ & (steps_ - 1)) == 0) saved_ = node;
    return repeated;
  }

 private:
  uint64_t steps_ = 0;
  Node saved_{};
};

}  // namespace symforge_internal
