#include "symforge/src/parallel/file_workers.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace symforge_internal {

namespace {

using FileLimit = Allowance FileBudget::*;

// What costs the same on any number of threads, and what several threads may read several times.
constexpr FileLimit kExact[] = {&FileBudget::symbols, &FileBudget::functions,
                                &FileBudget::fileChecksums, &FileBudget::movedParts};
constexpr FileLimit kRepeated[] = {&FileBudget::visited, &FileBudget::copied,
                                   &FileBudget::typeVisits, &FileBudget::typeText};

// Spends what the workers have spent of a limit. False, and nothing is spent, if that is more than
// `share` of what was left before.
bool settle(FileLimit limit, uint64_t share, const FileBudget& before,
            const std::vector<FileBudget>& budgets, FileBudget& after) {
  const uint64_t most = (before.*limit).left() / share;
  uint64_t spent = 0;
  for (const FileBudget& budget : budgets) spent += (before.*limit).left() - (budget.*limit).left();
  if (spent > most || spent > (after.*limit).left()) return false;
  (after.*limit).spend(spent);
  return true;
}

}  // namespace

FileAttempt::FileAttempt(WorkerPool& pool, const MsfFile& file, WorkerTask task)
    : m_file(file),
      m_before(file.budget()),
      m_budgets(pool.size(), m_before),
      m_run(pool, [this, task = std::move(task)](unsigned worker) {
        FileBudget budget = m_before;  // on the thread's own stack, as it changes all the time
        const ThreadBudget own(budget);
        task(worker);
        m_budgets[worker] = budget;
      }) {}

bool FileAttempt::finish() {
  if (!m_run.finish()) return false;
  FileBudget after = m_file.budget();
  const auto settled = [&](uint64_t share) {
    return [&, share](FileLimit limit) { return settle(limit, share, m_before, m_budgets, after); };
  };
  if (!std::all_of(std::begin(kExact), std::end(kExact), settled(1)) ||
      !std::all_of(std::begin(kRepeated), std::end(kRepeated), settled(2))) {
    return false;
  }
  m_file.budget() = after;
  m_budgets.assign(m_budgets.size(), m_before);  // what is spent is settled once
  return true;
}

}  // namespace symforge_internal
