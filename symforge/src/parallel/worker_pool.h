// WorkerPool: threads that do parts of one conversion.
//
// What they do is an attempt: whatever a part cannot do quietly (a warning, an exception, a failed
// check, even an invalid memory access) ends the attempt, and the caller does all of it again on
// its own thread. So a damaged file is reported in the same words, in the same order and with the
// same exit status for any number of threads. Parts must only write to memory that the caller then
// discards.
//
//   WorkerPool pool(2);
//   if (!pool.run([&](unsigned worker) { results[worker] = part(worker); })) results = whole();
//
// After a failed check every further attempt fails at once.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace symforge_internal {

// The number of the worker is from 0 to WorkerPool::size() - 1.
using WorkerTask = std::function<void(unsigned worker)>;

// A pool is used by the thread that made it.
class WorkerPool {
 public:
  struct State;  // what the threads share

  // Starts at most `threads` threads; fewer where the system refuses them.
  explicit WorkerPool(unsigned threads);
  // Waits for the threads, except for those that a failed check has stopped.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  unsigned size() const { return static_cast<unsigned>(m_threads.size()); }
  // Whether an attempt can succeed: there are threads, and none was stopped.
  bool usable() const;

  // Calls `task` once on each thread and waits for all of them. False if the attempt failed.
  bool run(const WorkerTask& task);

  // The halves of run(). `task` must exist until finish(); no other task can run until then.
  void start(const WorkerTask& task);
  bool finish();

  // ---- For tasks.

  // For what the parts of a task do one after the other. There are two independent orders.
  enum Order : unsigned { kFirstOrder, kSecondOrder };

  // Waits until passTurn() was called `number` times since the task was started. Does not return if
  // the attempt has failed. Every number must come.
  void waitForTurn(Order order, uint32_t number);
  void passTurn(Order order);
  // Whether waitForTurn() would not wait.
  bool isTurn(Order order, uint32_t number) const;
  // Does not return if the attempt has failed.
  void checkAttempt() const;

  // ---- For code that a task calls and that does not know of it.

  // Ends the attempt when this thread is a worker; otherwise does nothing. To be called before
  // anything is shown to the user.
  static void giveUpOnWorker();
  // The same where nothing can be thrown, as in the handler of a fatal signal: a worker is stopped
  // for good, with its locks held. Safe in signal handlers.
  static void stopWorker() noexcept;

 private:
  static void work(const std::shared_ptr<State>& state, unsigned worker);

  const std::shared_ptr<State> m_state;  // threads that were stopped keep it
  std::vector<std::thread> m_threads;
};

// While it exists a task runs, and the destructor waits for its end: what the task refers to can be
// on the stack of the caller, which may leave by an exception.
class WorkerRun {
 public:
  WorkerRun(WorkerPool& pool, WorkerTask task) : m_pool(pool), m_task(std::move(task)) {
    m_pool.start(m_task);
  }
  ~WorkerRun() { finish(); }
  WorkerRun(const WorkerRun&) = delete;
  WorkerRun& operator=(const WorkerRun&) = delete;

  // Waits; false if the attempt failed. Can be called again.
  bool finish() {
    if (!m_finished) m_succeeded = m_pool.finish();
    m_finished = true;
    return m_succeeded;
  }

 private:
  WorkerPool& m_pool;
  const WorkerTask m_task;
  bool m_finished = false;
  bool m_succeeded = false;
};

}  // namespace symforge_internal
