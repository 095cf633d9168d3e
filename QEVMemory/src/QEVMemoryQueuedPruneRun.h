#pragma once

#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Tasks.h>

#include <atomic>
#include <memory>
#include <stop_token>
#include <utility>

// One queued pruning run that later requests join. A run reads the options
// and lists the files only as it begins, so while it waits it already does
// everything a second run would; a request made once it has begun queues
// the next. Runs wait at background priority, behind the saves, and their
// failures are dropped. Thread-safe; the flag is shared with the queued
// task, which may outlive its owner.
class QEVMemoryQueuedPruneRun {
 public:
  // Runs go on `executor`, which must outlive the runs.
  explicit QEVMemoryQueuedPruneRun(qevr::Executor& executor = qevr::defaultExecutor())
      : runExecutor(executor) {}

  // Queues `run(stop)` unless a run is queued and has not begun.
  template <typename Run>
  void request(Run run) {
    if (queued->exchange(true, std::memory_order_acq_rel)) return;
    qevr::detachTask(runExecutor, qevr::TaskPriority::background,
                     [flag = queued, run = std::move(run)](std::stop_token stop) mutable {
                       flag->store(false, std::memory_order_release);
                       try {
                         run(stop);
                       } catch (...) {
                       }
                     });
  }

 private:
  qevr::Executor& runExecutor;
  const std::shared_ptr<std::atomic<bool>> queued = std::make_shared<std::atomic<bool>>(false);
};
