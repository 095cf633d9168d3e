#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include "QueueingExecutor.h"

#include <algorithm>
#include <condition_variable>
#include <thread>

const char* QEVRCancellationError::what() const noexcept {
  return "CancellationError";
}

namespace qevr {

void checkCancellation(const std::stop_token& token) {
  if (token.stop_requested()) throw QEVRCancellationError();
}

namespace {

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
      waitOn(workQueued);
    }
  }

  const unsigned threadCount;
  std::condition_variable workQueued;
  bool workersStarted QEVR_GUARDED_BY(lock) = false;
};

}  // namespace

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
