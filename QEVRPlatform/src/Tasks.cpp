#include <QEVRPlatform/Tasks.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

const char* QEVRCancellationError::what() const noexcept {
  return "CancellationError";
}

namespace qevr {

void checkCancellation(const std::stop_token& token) {
  if (token.stop_requested()) throw QEVRCancellationError();
}

namespace {

// The process-wide pool.
//
// Thread safety: `lock` guards the queues, `inFlight`, the worker list and
// every task's `finished` flag. `changed` is notified whenever a task is
// queued or finishes, which is all that workers, waiters and idle-waiters
// wait for. Tasks run with the lock released.
class Pool {
 public:
  static Pool& shared() {
    // Leaked on purpose: detached tasks may outlive static destruction.
    static Pool* pool = new Pool;
    return *pool;
  }

  unsigned size() const { return threadCount; }

  void enqueue(std::shared_ptr<detail::TaskStateBase> state) {
    {
      std::lock_guard guard(lock);
      startWorkersLocked();
      queues[static_cast<size_t>(state->priority)].push_back(std::move(state));
      ++inFlight;
    }
    changed.notify_all();
  }

  void waitFor(const detail::TaskStateBase& state) {
    std::unique_lock guard(lock);
    while (!state.finished) {
      // Help: run queued work instead of blocking a pool thread, so that a
      // task waiting for its children can never starve them. Only work of
      // the awaited task's priority or above: the awaited task itself is
      // always among it, and a waiter never gets stuck in a long run of
      // lower-priority work (a pruning pass) while its own result is ready.
      if (auto next = popLocked(state.priority)) {
        runLocked(guard, std::move(next));
        continue;
      }
      changed.wait(guard);
    }
  }

  bool isFinished(const detail::TaskStateBase& state) {
    std::lock_guard guard(lock);
    return state.finished;
  }

  TaskPoolLoad load() {
    std::lock_guard guard(lock);
    TaskPoolLoad result;
    for (const auto& queue : queues)
      result.queued += queue.size();
    result.running = inFlight - result.queued;
    return result;
  }

  bool waitForIdle(std::chrono::milliseconds timeout) {
    std::unique_lock guard(lock);
    return changed.wait_for(guard, timeout, [this] { return inFlight == 0; });
  }

 private:
  Pool() : threadCount(std::max(2u, std::thread::hardware_concurrency())) {}

  // Requires: lock held.
  void startWorkersLocked() {
    if (!workers.empty()) return;
    for (unsigned i = 0; i < threadCount; ++i) {
      workers.emplace_back([this] { workerLoop(); });
    }
    // The pool lives as long as the process; its threads are never joined.
    for (auto& t : workers)
      t.detach();
  }

  // Requires: lock held. Highest priority first, FIFO within a priority,
  // nothing below `lowest`.
  std::shared_ptr<detail::TaskStateBase> popLocked(TaskPriority lowest = TaskPriority::background) {
    for (size_t i = queues.size(); i-- > static_cast<size_t>(lowest);) {
      if (!queues[i].empty()) {
        auto next = std::move(queues[i].front());
        queues[i].pop_front();
        return next;
      }
    }
    return nullptr;
  }

  // Requires: lock held (through `guard`); released while the task runs.
  void runLocked(std::unique_lock<std::mutex>& guard, std::shared_ptr<detail::TaskStateBase> task) {
    guard.unlock();
    task->run();
    guard.lock();
    task->finished = true;
    --inFlight;
    changed.notify_all();
    // The pool may hold the last reference; destroying a task's result must
    // not happen under the lock, in case a destructor queues more work.
    guard.unlock();
    task.reset();
    guard.lock();
  }

  void workerLoop() {
    std::unique_lock guard(lock);
    for (;;) {
      if (auto next = popLocked()) {
        runLocked(guard, std::move(next));
        continue;
      }
      changed.wait(guard);
    }
  }

  const unsigned threadCount;
  std::mutex lock;
  std::condition_variable changed;
  std::array<std::deque<std::shared_ptr<detail::TaskStateBase>>, 4> queues;  // by priority
  size_t inFlight = 0;                                                       // queued + running
  std::vector<std::thread> workers;
};

}  // namespace

namespace detail {

void enqueue(std::shared_ptr<TaskStateBase> state) {
  Pool::shared().enqueue(std::move(state));
}
void waitFor(const TaskStateBase& state) {
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
