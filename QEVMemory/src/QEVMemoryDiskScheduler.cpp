#include "QEVMemoryDiskScheduler.h"

#include <QEVRPlatform/Tasks.h>

#include <atomic>
#include <utility>

QEVMemoryDiskScheduler::QEVMemoryDiskScheduler(BackgroundSubmit submit,
                                               qevr::Executor& taskExecutor,
                                               std::chrono::milliseconds longestWait)
    : backgroundSubmit(std::move(submit)),
      executor(taskExecutor),
      jobs(std::make_shared<QEVMemoryInFlightGate>(kMaxPendingJobs, longestWait)) {}

namespace {

// Runs a job once, whichever of its holders gets there first: the worker's
// operation, or the operation's destruction when the worker dropped it
// without running it.
struct OnceJob {
  std::atomic<bool> claimed{false};
  QEVMemoryDiskScheduler::Job job;
  std::shared_ptr<QEVMemoryInFlightGate> jobs;
  qevr::Executor* executor = nullptr;

  void run() {
    if (claimed.exchange(true, std::memory_order_acq_rel)) return;
    try {
      job();
    } catch (...) {
      // Save errors are dropped.
    }
    job = nullptr;  // what the job holds goes before anyone learns it is done
    jobs->leave();
  }
  void runOnTask(const std::shared_ptr<OnceJob>& self) {
    if (claimed.load(std::memory_order_acquire)) return;
    qevr::detachTask(*executor, qevr::TaskPriority::utility,
                     [self](std::stop_token) { self->run(); });
  }
};

// Destroyed with the worker's operation; falls back if it never ran.
struct FallbackGuard {
  std::shared_ptr<OnceJob> once;
  ~FallbackGuard() { once->runOnTask(once); }
};

}  // namespace

void QEVMemoryDiskScheduler::schedule(Job job) {
  auto once = std::make_shared<OnceJob>();
  once->job = std::move(job);
  once->jobs = jobs;
  once->executor = &executor;
  if (!jobs->enter()) {
    once->run();  // the pool did not drain in time
    return;
  }
  bool accepted = false;
  if (backgroundSubmit) {
    // The operation is the only holder of the guard: when the worker is done
    // with it, run or not, the guard goes and falls back if needed.
    auto guard = std::make_shared<FallbackGuard>(FallbackGuard{once});
    accepted = backgroundSubmit([guard](std::stop_token) { guard->once->run(); });
  }
  // A refused job runs anyway. (Only an unclaimed job runs, so a guard that
  // already fell back makes this a no-op.)
  if (!accepted) once->runOnTask(once);
}
