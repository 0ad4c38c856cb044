#include "symforge/src/driver/job_order.h"

#include <utility>

namespace symforge_internal {

void JobOrder::add(const std::vector<std::string>& keys) {
  const size_t number = jobs_.size();
  Job& job = jobs_.emplace_back();
  job.keys = keys;
  ++unfinished_;
  for (const std::string& key : keys) {
    const auto [entry, is_new] = last_.try_emplace(key, number);
    if (is_new) continue;
    const size_t before = std::exchange(entry->second, number);
    if (before == number) continue;  // a key given twice
    jobs_[before].successors.push_back(number);
    ++job.blockers;
  }
  if (job.blockers == 0) ready_.push(number);
}

std::optional<size_t> JobOrder::take() {
  if (ready_.empty()) return std::nullopt;
  const size_t job = ready_.top();
  ready_.pop();
  return job;
}

void JobOrder::finish(size_t number) {
  Job job = std::exchange(jobs_[number], Job());
  --unfinished_;
  for (const std::string& key : job.keys) {
    const auto entry = last_.find(key);
    if (entry != last_.end() && entry->second == number) last_.erase(entry);
  }
  for (const size_t successor : job.successors) {
    if (--jobs_[successor].blockers == 0) ready_.push(successor);
  }
}

}  // namespace symforge_internal
