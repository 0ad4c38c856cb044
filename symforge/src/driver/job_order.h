// JobOrder: which conversions of a batch can run at the same time so that the tree is the one that
// running them one after the other would make.

#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/text_hash.h"

namespace symforge_internal {

// Jobs are added in the order of a run that does them one by one. Each has keys: the entries of the
// tree that it reads, writes or links. Of two jobs with a common key, the one that was added first
// ends before the other one starts. So each entry of the tree sees the same sequence of accesses
// as in the run one by one, and all other jobs are independent of each other.
class JobOrder {
 public:
  // Adds the job with the next number: 0, 1, 2 ...
  void add(const std::vector<std::string>& keys);

  // Takes the first job that can start now.
  std::optional<size_t> take();

  // To be called when a job that was taken has ended.
  void finish(size_t job);

  bool has_ready() const { return !ready_.empty(); }
  // The number of jobs that were added and have not ended.
  size_t unfinished() const { return unfinished_; }

 private:
  struct Job {
    size_t blockers = 0;             // jobs that have to end first
    std::vector<size_t> successors;  // jobs that this one blocks
    std::vector<std::string> keys;
  };

  std::deque<Job> jobs_;
  std::unordered_map<std::string, size_t, TextHash> last_;  // by key, the last job that has it
  std::priority_queue<size_t, std::vector<size_t>, std::greater<>> ready_;
  size_t unfinished_ = 0;
};

}  // namespace symforge_internal
