#include "symforge/src/parallel/file_workers.h"

#include <emmintrin.h>

#include <cstring>
#include <utility>

namespace symforge_internal {

namespace {

// Spends what the workers have spent of a limit. False, and nothing is spent, if that is more than
// half of what was left before.
bool settle(Allowance FileBudget::*limit, const FileBudget& before,
            const std::vector<FileBudget>& budgets, FileBudget& after) {
  const uint64_t had = (before.*limit).left();
  uint64_t spent = 0;
  for (const FileBudget& budget : budgets) spent += had - (budget.*limit).left();
  if (spent > had / 2 || spent > (after.*limit).left()) return false;
  (after.*limit).spend(spent);
  return true;
}

}  // namespace

FileAttempt::FileAttempt(WorkerPool& pool, const MsfFile& file, WorkerTask task)
    : m_file(file),
      m_before(file.budget()),
      m_budgets(pool.size(), m_before),
      m_run(pool, [this, task = std::move(task)](unsigned worker) {
        const ThreadBudget own(m_budgets[worker]);
        task(worker);
      }) {}

bool FileAttempt::finish() {
  if (!m_run.finish()) return false;
  FileBudget after = m_file.budget();
  for (const auto limit :
       {&FileBudget::visited, &FileBudget::copied, &FileBudget::symbols, &FileBudget::functions,
        &FileBudget::fileChecksums, &FileBudget::typeVisits, &FileBudget::typeText}) {
    if (!settle(limit, m_before, m_budgets, after)) return false;
  }
  m_file.budget() = after;
  m_budgets.assign(m_budgets.size(), m_before);  // what is spent is settled once
  return true;
}

void OrderedText::append(size_t number, std::string_view text) {
  m_pool.waitForTurn(WorkerPool::kSecondOrder, static_cast<uint32_t>(number));
  // The text may move when it grows.
  if (m_out.room() < text.size()) {
    while (m_copying.load() != 0) {
      m_pool.checkAttempt();
      _mm_pause();
    }
  }
  char* const to = m_out.prepare(text.size());
  m_out.commit(text.size());
  m_copying.fetch_add(1);
  m_pool.passTurn(WorkerPool::kSecondOrder);
  if (!text.empty()) std::memcpy(to, text.data(), text.size());
  m_copying.fetch_sub(1);
}

}  // namespace symforge_internal
