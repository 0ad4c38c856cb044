// FileWorkers: a WorkerPool that reads one PDB, within the limits of the file.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "symforge/src/msf/msf_file.h"
#include "symforge/src/parallel/worker_pool.h"

namespace symforge_internal {

// An attempt of a FileWorkers. Workers have budgets of their own, as the file's is for one thread.
// Together they can spend more than one thread would, as each reads what it needs: an attempt that
// comes near such a limit fails, so that only one thread decides whether the limit is exceeded.
class FileAttempt {
 public:
  // Starts `task` on all workers of `pool`; waits in the destructor.
  FileAttempt(WorkerPool& pool, const MsfFile& file, WorkerTask task);

  // Waits; false if the attempt failed, and the file's budget is then unchanged by it.
  bool finish();

 private:
  const MsfFile& m_file;
  const FileBudget m_before;
  std::vector<FileBudget> m_budgets;  // what each worker has left
  WorkerRun m_run;
};

// The numbers from 0 to `count` - 1, in ascending order, each for one worker.
class WorkQueue {
 public:
  explicit WorkQueue(size_t count) : m_count(count) {}

  // False when none is left.
  bool take(size_t& number) {
    number = m_next.fetch_add(1, std::memory_order_relaxed);
    return number < m_count;
  }

 private:
  const size_t m_count;
  std::atomic<size_t> m_next = 0;
};

// The most text that a worker has at a time, for a text with this limit. Far more than sound files
// need: an attempt with more fails.
constexpr size_t workerTextLimit(size_t textLimit) { return textLimit / 4; }

}  // namespace symforge_internal
