// ModuleParts: the modules of a PDB in runs of about equal size, for workers.

#pragma once

#include <cstddef>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "symforge/src/msf/msf_file.h"
#include "symforge/src/parallel/file_workers.h"
#include "symforge/src/parallel/worker_pool.h"
#include "symforge/src/pdb/module_stream.h"

namespace symforge_internal {

struct ModulePart {
  size_t first = 0;  // positions in the list of modules
  size_t end = 0;
};

// In the order of the list; several for each of `workers` workers.
std::vector<ModulePart> moduleParts(const ModuleStreams& modules, unsigned workers);

// The results of `read`, which the workers call for each part, in the order of the parts; null if
// they have failed. `read` takes a ModulePart and returns by value.
template <typename Read>
auto readModuleParts(WorkerPool& pool, const MsfFile& file, const ModuleStreams& modules,
                     const Read& read) {
  using Result = std::invoke_result_t<Read, const ModulePart&>;
  std::optional<std::vector<Result>> results;
  if (!pool.usable()) return results;
  const std::vector<ModulePart> parts = moduleParts(modules, pool.size());
  std::vector<std::optional<Result>> resultOf(parts.size());
  WorkQueue queue(parts.size());
  FileAttempt attempt(pool, file, [&](unsigned) {
    size_t part;
    while (queue.take(part)) {
      // A result that is changed often is on the thread's own stack: threads slow each other down
      // when they write to the same cache line.
      resultOf[part].emplace(read(parts[part]));
    }
  });
  if (!attempt.finish()) return results;
  results.emplace().reserve(parts.size());
  for (std::optional<Result>& result : resultOf) results->push_back(*std::move(result));
  return results;
}

}  // namespace symforge_internal
