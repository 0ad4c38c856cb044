#include "symforge/src/parallel/worker_pool.h"

#include <signal.h>

#include <atomic>
#include <system_error>
#include <utility>

namespace symforge_internal {

namespace {

// Thrown on workers only. Not an exception of the standard library: what catches the failures of a
// damaged file must not catch it.
struct GivenUp {};

// Of the turns: the attempt has failed.
constexpr uint32_t kFailed = uint32_t{1} << 31;

// Handlers of fatal signals need a stack of their own, as that of the thread may have overflowed.
class SignalStack {
 public:
  SignalStack() : m_bytes(new char[kBytes]) {
    stack_t description = {};
    description.ss_sp = m_bytes.get();
    description.ss_size = kBytes;
    sigaltstack(&description, nullptr);
  }
  ~SignalStack() {
    stack_t description = {};
    description.ss_flags = SS_DISABLE;
    // A sandbox does not permit that.
    if (sigaltstack(&description, nullptr) != 0) static_cast<void>(m_bytes.release());
  }

 private:
  static constexpr size_t kBytes = 64 * 1024;
  std::unique_ptr<char[]> m_bytes;
};

}  // namespace

// Everything that workers wait for is an atomic number, as a signal handler can change it.
struct WorkerPool::State {
  std::atomic<uint32_t> round = 0;    // of the task that is to be done; an odd number ends
  std::atomic<uint32_t> working = 0;  // threads that have not ended the task
  std::atomic<uint32_t> turns[2] = {};
  std::atomic<bool> stopped = false;  // a thread will not end
  const WorkerTask* task = nullptr;

  void fail() {
    for (std::atomic<uint32_t>& turn : turns) {
      turn.fetch_or(kFailed);
      turn.notify_all();
    }
  }
  void endTask() {
    if (working.fetch_sub(1) == 1) working.notify_all();
  }
  bool failed() const { return (turns[0].load() & kFailed) != 0; }
};

namespace {

thread_local WorkerPool::State* this_worker = nullptr;

}  // namespace

void WorkerPool::work(const std::shared_ptr<State>& state, unsigned worker) {
  const SignalStack stack;
  this_worker = state.get();
  for (uint32_t last = 0;;) {
    state->round.wait(last);
    last = state->round.load();
    if (last % 2 != 0) return;
    try {
      (*state->task)(worker);
    } catch (...) {
      state->fail();
    }
    state->endTask();
  }
}

WorkerPool::WorkerPool(unsigned threads) : m_state(std::make_shared<State>()) {
  m_threads.reserve(threads);
  try {
    while (m_threads.size() < threads) m_threads.emplace_back(work, m_state, size());
  } catch (const std::system_error&) {
    // Those that exist do.
  }
}

WorkerPool::~WorkerPool() {
  m_state->round.fetch_add(1);
  m_state->round.notify_all();
  for (std::thread& thread : m_threads) m_state->stopped.load() ? thread.detach() : thread.join();
}

bool WorkerPool::usable() const { return size() != 0 && !m_state->stopped.load(); }

bool WorkerPool::run(const WorkerTask& task) {
  start(task);
  return finish();
}

void WorkerPool::start(const WorkerTask& task) {
  if (!usable()) return;
  for (std::atomic<uint32_t>& turn : m_state->turns) turn.store(0);
  m_state->working.store(size());
  m_state->task = &task;
  m_state->round.fetch_add(2);
  m_state->round.notify_all();
}

bool WorkerPool::finish() {
  for (uint32_t left; (left = m_state->working.load()) != 0;) m_state->working.wait(left);
  return usable() && !m_state->failed();
}

void WorkerPool::waitForTurn(Order order, uint32_t number) {
  std::atomic<uint32_t>& turn = m_state->turns[order];
  for (uint32_t now; (now = turn.load()) != number; turn.wait(now)) {
    if ((now & kFailed) != 0) throw GivenUp();
  }
}

bool WorkerPool::isTurn(Order order, uint32_t number) const {
  return m_state->turns[order].load() == number;
}

void WorkerPool::passTurn(Order order) {
  m_state->turns[order].fetch_add(1);
  m_state->turns[order].notify_all();
}

void WorkerPool::checkAttempt() const {
  if (m_state->failed()) throw GivenUp();
}

void WorkerPool::giveUpOnWorker() {
  if (this_worker != nullptr) throw GivenUp();
}

void WorkerPool::stopWorker() noexcept {
  State* const state = this_worker;
  if (state == nullptr) return;
  state->stopped.store(true);
  state->fail();
  state->endTask();
  for (std::atomic<uint32_t> never = 0;;) never.wait(0);
}

}  // namespace symforge_internal
