#include "symforge/src/driver/conversion_options.h"

#include <sched.h>

#include <algorithm>
#include <charconv>

namespace symforge_internal {

unsigned resolved_jobs(unsigned jobs) {
  if (jobs != 0) return std::min(jobs, kMostJobs);
  cpu_set_t processors;
  CPU_ZERO(&processors);
  // Fails on machines with more processors than the set has places for.
  if (sched_getaffinity(0, sizeof processors, &processors) != 0) return 1;
  return std::clamp(static_cast<unsigned>(CPU_COUNT(&processors)), 1U, kMostJobs);
}

bool parse_jobs(std::string_view text, unsigned& jobs) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, jobs);
  return error == std::errc() && stop == end && jobs <= kMostJobs;
}

}  // namespace symforge_internal
