// Where background work runs.
//
// An executor is handed tasks (Tasks.h) and runs them in the background,
// highest priority first. Components that start background work take one at
// construction and keep it; unless given another they take the default
// executor, the process-wide pool. A host or a test that wants the work
// elsewhere passes its own.
//
// Every executor keeps the waiting rules of Tasks.h: a thread that waits for
// a task still queued on it takes the task out of the queue and runs it
// itself; one that waits for a task running elsewhere blocks until the task
// finishes; neither runs any other task. So nothing that waits can deadlock,
// whatever the executor's threads are doing, or whether it has any.
#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/Tasks.h>

#include <memory>

namespace qevr {

class QEVR_API Executor {
 public:
  Executor() = default;
  virtual ~Executor() = default;
  Executor(const Executor&) = delete;
  Executor& operator=(const Executor&) = delete;

  // Queues `task` at its priority, to run once in the background. Never
  // runs it on the calling thread. `task->executor` is this executor.
  virtual void schedule(std::shared_ptr<detail::TaskStateBase> task) = 0;
  // Returns once `task`, scheduled here, has finished: runs it on the
  // calling thread if no thread has started it, else blocks until it ends.
  // Runs no other task.
  virtual void wait(detail::TaskStateBase& task) = 0;
  virtual bool isFinished(const detail::TaskStateBase& task) = 0;
};

// The process-wide pool, made on first use and never destroyed (declared in
// Tasks.h as well).
QEVR_API Executor& defaultExecutor();

}  // namespace qevr
