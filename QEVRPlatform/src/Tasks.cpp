#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include "QueueingExecutor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
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

// Set once each, never cleared: read by idle pool threads without a lock.
std::array<std::atomic<void (*)()>, 8> idleReleases{};

void runIdleReleases() {
  for (const auto& slot : idleReleases) {
    if (void (*release)() = slot.load(std::memory_order_acquire)) release();
  }
}

// The process-wide pool: the default executor. Its threads start with the
// first task and live as long as the process; they sleep on `workQueued`,
// woken one per task queued.
class Pool final : public QueueingExecutor {
 public:
  static Pool& shared() {
    // Leaked on purpose: detached tasks may outlive static destruction.
    static Pool* pool = new Pool;
    return *pool;
  }

  unsigned size() const { return threadCount; }

 private:
  Pool() : threadCount(std::max(2u, std::thread::hardware_concurrency())) {}

  void onQueuedLocked() override QEVR_REQUIRES(lock) {
    if (workersStarted) return;
    workersStarted = true;
    // The pool lives as long as the process; its threads are never joined.
    for (unsigned i = 0; i < threadCount; ++i)
      std::thread([this] { workerLoop(); }).detach();
  }
  void afterQueued() override { workQueued.notify_one(); }

  void workerLoop() QEVR_EXCLUDES(lock) {
    MutexLock guard(lock);
    for (;;) {
      if (auto next = popLocked()) {
        runLocked(std::move(next));
        continue;
      }
      // A thread that has had nothing to do for a while frees what it keeps
      // for its next task, so that a burst's buffers do not stay resident.
      std::unique_lock<std::mutex> raw(lock.native(), std::adopt_lock);
      const bool woken = workQueued.wait_for(raw, kIdleBeforeRelease) == std::cv_status::no_timeout;
      raw.release();
      if (woken || queuedCount > 0) continue;
      lock.native().unlock();
      runIdleReleases();
      lock.native().lock();
      if (queuedCount == 0) waitOn(workQueued);
    }
  }

  static constexpr std::chrono::seconds kIdleBeforeRelease{1};

  const unsigned threadCount;
  std::condition_variable workQueued;
  bool workersStarted QEVR_GUARDED_BY(lock) = false;
};

}  // namespace

void releaseOnIdlePoolThreads(void (*release)()) {
  for (auto& slot : idleReleases) {
    void (*expected)() = nullptr;
    if (slot.compare_exchange_strong(expected, release, std::memory_order_acq_rel) ||
        expected == release) {
      return;
    }
  }
}

namespace detail {

void schedule(Executor& executor, std::shared_ptr<TaskStateBase> state) {
  state->executor = &executor;
  executor.schedule(std::move(state));
}
void waitFor(TaskStateBase& state) {
  state.executor->wait(state);
}
bool isFinished(const TaskStateBase& state) {
  return state.executor->isFinished(state);
}

}  // namespace detail

Executor& defaultExecutor() {
  return Pool::shared();
}

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
