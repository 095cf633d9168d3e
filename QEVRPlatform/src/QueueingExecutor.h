// The part the pool and the manual executor share: one FIFO queue per
// priority and the waiting rules of Tasks.h. Subclasses decide who runs
// what is queued: the pool's threads, or whoever calls for it.
#pragma once

#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>

namespace qevr {

// Thread safety: `lock` guards the fields below and the `stage` and
// `blockedWaiters` of every task scheduled here. Task bodies, notifications
// and the release of a task's last reference all happen with the lock
// released. Invariants, with the lock held: a task is in one of `queues`
// exactly while its stage is `queued`; `queued` counts those tasks and
// `inFlight` the queued and running ones; `blockedWaiters` sums the tasks'
// own counts.
//
// Waiters sleep on `taskFinished`, notified only when the task finishing
// has a waiter; waitForIdle sleeps on `drained`, notified when `inFlight`
// reaches zero.
class QueueingExecutor : public Executor {
 public:
  void schedule(std::shared_ptr<detail::TaskStateBase> task) override QEVR_EXCLUDES(lock);
  // A waiter runs the awaited task itself if no thread has started it yet,
  // and otherwise blocks until it finishes, taking no other work. Running
  // the task here is what keeps nested waits from starving a bounded pool:
  // a body that waits for a child still queued runs the child on its own
  // stack, so every task waited for is either running somewhere or about to
  // run here. Running nothing else keeps a waiter from executing code that
  // is none of its business (which might need a lock the waiter holds) and
  // lets it return the moment its task is done.
  void wait(detail::TaskStateBase& task) override QEVR_EXCLUDES(lock);
  bool isFinished(const detail::TaskStateBase& task) override QEVR_EXCLUDES(lock);

  TaskPoolLoad load() const QEVR_EXCLUDES(lock);
  // Until nothing is queued or running, at most `timeout`; says which.
  bool waitForIdle(std::chrono::milliseconds timeout) QEVR_EXCLUDES(lock);

 protected:
  // Told of every task queued: first with the lock held, then without it.
  virtual void onQueuedLocked() QEVR_REQUIRES(lock) {}
  virtual void afterQueued() {}

  // The next task to run: highest priority first, FIFO within one. Null
  // when nothing is queued.
  std::shared_ptr<detail::TaskStateBase> popLocked() QEVR_REQUIRES(lock);
  // Takes `task`, known to be queued, out of its queue.
  std::shared_ptr<detail::TaskStateBase> takeLocked(detail::TaskStateBase& task)
      QEVR_REQUIRES(lock);
  // Runs `task`, taken out of its queue, with the lock released, and marks
  // it finished.
  void runLocked(std::shared_ptr<detail::TaskStateBase> task) QEVR_REQUIRES(lock);
  // Blocks on `cv` with the lock held on entry and on return.
  void waitOn(std::condition_variable& cv) QEVR_REQUIRES(lock);

  mutable Mutex lock;
  std::array<std::deque<std::shared_ptr<detail::TaskStateBase>>, 4> queues QEVR_GUARDED_BY(lock);
  std::size_t queuedCount QEVR_GUARDED_BY(lock) = 0;

 private:
  std::size_t inFlight QEVR_GUARDED_BY(lock) = 0;
  std::size_t blockedWaiters QEVR_GUARDED_BY(lock) = 0;
  std::condition_variable taskFinished;
  std::condition_variable drained;
};

}  // namespace qevr
