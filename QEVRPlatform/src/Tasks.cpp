#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

const char* QEVRCancellationError::what() const noexcept {
  return "CancellationError";
}

namespace qevr {

void checkCancellation(const std::stop_token& token) {
  if (token.stop_requested()) throw QEVRCancellationError();
}

namespace {

using detail::TaskStage;
using detail::TaskStateBase;

// Blocks on `cv` with `mutex` held on entry and on return. The analysis
// knows `mutex` is held; std::condition_variable wants a unique_lock on the
// raw mutex, which is lent here and taken back without unlocking it.
void waitOn(std::condition_variable& cv, Mutex& mutex) QEVR_REQUIRES(mutex) {
  std::unique_lock<std::mutex> raw(mutex.native(), std::adopt_lock);
  cv.wait(raw);
  raw.release();
}

// The process-wide pool.
//
// Thread safety: `lock` guards the fields below and every task's `stage` and
// `blockedWaiters`. Task bodies, notifications and the release of a task's
// last reference all happen with the lock released. Invariants, with the
// lock held: a task is in one of `queues` exactly while its stage is
// `queued`; `queued` counts those tasks and `inFlight` the queued and running
// ones; `blockedWaiters` sums the tasks' own counts.
//
// Three condition variables, so that nobody is woken for nothing: workers
// sleep on `workQueued`, woken one per task queued; waiters sleep on
// `taskFinished`, notified only when the task finishing has a waiter; and
// waitForBackgroundIdle sleeps on `drained`, notified when `inFlight`
// reaches zero.
class Pool {
 public:
  static Pool& shared() {
    // Leaked on purpose: detached tasks may outlive static destruction.
    static Pool* pool = new Pool;
    return *pool;
  }

  unsigned size() const { return threadCount; }

  void enqueue(std::shared_ptr<TaskStateBase> state) QEVR_EXCLUDES(lock) {
    {
      MutexLock guard(lock);
      startWorkersLocked();
      state->stage = TaskStage::queued;
      queues[static_cast<std::size_t>(state->priority)].push_back(std::move(state));
      ++queued;
      ++inFlight;
    }
    workQueued.notify_one();
  }

  // A waiter runs the awaited task itself if no thread has started it yet,
  // and otherwise blocks until it finishes, taking no other work. Running
  // the task here is what keeps nested waits from starving a bounded pool:
  // a body that waits for a child still queued runs the child on its own
  // stack, so every task waited for is either running somewhere or about to
  // run here. Running nothing else keeps a waiter from executing code that
  // is none of its business (which might need a lock the waiter holds) and
  // lets it return the moment its task is done.
  void waitFor(TaskStateBase& state) QEVR_EXCLUDES(lock) {
    MutexLock guard(lock);
    if (state.stage == TaskStage::queued) {
      runLocked(takeLocked(state));
      return;
    }
    if (state.stage == TaskStage::finished) return;
    ++state.blockedWaiters;
    ++blockedWaiters;
    while (state.stage != TaskStage::finished)
      waitOn(taskFinished, lock);
    --state.blockedWaiters;
    --blockedWaiters;
  }

  bool isFinished(const TaskStateBase& state) QEVR_EXCLUDES(lock) {
    MutexLock guard(lock);
    return state.stage == TaskStage::finished;
  }

  TaskPoolLoad load() QEVR_EXCLUDES(lock) {
    MutexLock guard(lock);
    TaskPoolLoad result;
    result.queued = queued;
    result.running = inFlight - queued;
    result.blockedWaiters = blockedWaiters;
    return result;
  }

  bool waitForIdle(std::chrono::milliseconds timeout) QEVR_EXCLUDES(lock) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock guard(lock);
    std::unique_lock<std::mutex> raw(lock.native(), std::adopt_lock);
    // Reads `inFlight` with `lock` held through `raw`, which the analysis
    // cannot follow into the predicate.
    const bool idle = drained.wait_until(
        raw, deadline, [this]() QEVR_NO_THREAD_SAFETY_ANALYSIS { return inFlight == 0; });
    raw.release();
    return idle;
  }

 private:
  Pool() : threadCount(std::max(2u, std::thread::hardware_concurrency())) {}

  void startWorkersLocked() QEVR_REQUIRES(lock) {
    if (workersStarted) return;
    workersStarted = true;
    // The pool lives as long as the process; its threads are never joined.
    for (unsigned i = 0; i < threadCount; ++i)
      std::thread([this] { workerLoop(); }).detach();
  }

  // The next task for a worker: highest priority first, FIFO within one.
  std::shared_ptr<TaskStateBase> popLocked() QEVR_REQUIRES(lock) {
    for (std::size_t i = queues.size(); i-- > 0;) {
      if (queues[i].empty()) continue;
      auto next = std::move(queues[i].front());
      queues[i].pop_front();
      --queued;
      next->stage = TaskStage::running;
      return next;
    }
    return nullptr;
  }

  // Takes `state`, known to be queued, out of its queue for a waiter. The
  // search starts at the back, where a task just created by its waiter is.
  std::shared_ptr<TaskStateBase> takeLocked(TaskStateBase& state) QEVR_REQUIRES(lock) {
    auto& queue = queues[static_cast<std::size_t>(state.priority)];
    auto it = std::find_if(queue.rbegin(), queue.rend(),
                           [&state](const auto& entry) { return entry.get() == &state; });
    auto taken = std::move(*it);
    queue.erase(std::next(it).base());
    --queued;
    taken->stage = TaskStage::running;
    return taken;
  }

  // Runs `task` with the lock released and marks it finished.
  void runLocked(std::shared_ptr<TaskStateBase> task) QEVR_REQUIRES(lock) {
    lock.unlock();
    task->run();
    lock.lock();
    task->stage = TaskStage::finished;
    const bool hasWaiters = task->blockedWaiters > 0;
    const bool idle = --inFlight == 0;
    lock.unlock();
    if (hasWaiters) taskFinished.notify_all();
    if (idle) drained.notify_all();
    // The pool may hold the last reference; destroying a task's result must
    // not happen under the lock, in case a destructor queues more work.
    task.reset();
    lock.lock();
  }

  void workerLoop() QEVR_EXCLUDES(lock) {
    MutexLock guard(lock);
    for (;;) {
      if (auto next = popLocked()) {
        runLocked(std::move(next));
        continue;
      }
      waitOn(workQueued, lock);
    }
  }

  const unsigned threadCount;
  Mutex lock;
  std::condition_variable workQueued;
  std::condition_variable taskFinished;
  std::condition_variable drained;
  std::array<std::deque<std::shared_ptr<TaskStateBase>>, 4> queues QEVR_GUARDED_BY(lock);
  std::size_t queued QEVR_GUARDED_BY(lock) = 0;
  std::size_t inFlight QEVR_GUARDED_BY(lock) = 0;
  std::size_t blockedWaiters QEVR_GUARDED_BY(lock) = 0;
  bool workersStarted QEVR_GUARDED_BY(lock) = false;
};

}  // namespace

namespace detail {

void enqueue(std::shared_ptr<TaskStateBase> state) {
  Pool::shared().enqueue(std::move(state));
}
void waitFor(TaskStateBase& state) {
  Pool::shared().waitFor(state);
}
bool isFinished(const TaskStateBase& state) {
  return Pool::shared().isFinished(state);
}

}  // namespace detail

unsigned taskPoolSize() {
  return Pool::shared().size();
}

TaskPoolLoad taskPoolLoad() {
  return Pool::shared().load();
}

bool waitForBackgroundIdle(std::chrono::milliseconds timeout) {
  return Pool::shared().waitForIdle(timeout);
}

}  // namespace qevr
