#pragma once

#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Executor.h>
#include "QEVMemoryInFlightGate.h"

#include <chrono>
#include <functional>
#include <memory>

// Runs graph jobs on the system's background worker when it takes them, and
// on a plain utility task otherwise, so a refused job runs anyway. A job the
// worker accepted but dropped unrun (its shutdown cancelled it before it
// started) also falls back to a plain task: each job runs exactly once.
// Jobs in flight pass through a QEVMemoryInFlightGate, so a burst of short
// sessions cannot queue without bound: past kMaxPendingJobs the caller waits
// for the pool, and runs the job itself only if that wait times out.
class QEVMemoryDiskScheduler {
 public:
  using BackgroundSubmit = std::function<bool(QEVRBackgroundOperation)>;
  using Job = std::function<void()>;
  static constexpr int kMaxPendingJobs = 16;
  static constexpr int kResumeAt = QEVMemoryInFlightGate::resumeAtFor(kMaxPendingJobs);

  // Plain tasks go on `executor`, which must outlive the jobs.
  explicit QEVMemoryDiskScheduler(
      BackgroundSubmit backgroundSubmit, qevr::Executor& executor = qevr::defaultExecutor(),
      std::chrono::milliseconds longestWait = QEVMemoryInFlightGate::kDefaultLongestWait);

  // Returns at once, unless the caller is paced (see above).
  void schedule(Job job);
  int pendingJobs() const { return jobs->inFlight(); }
  int pacedThreads() const { return jobs->waitingThreads(); }
  // Blocks until no job is in flight, or `timeout` has passed; says which.
  // Must not be called from a job.
  bool waitUntilIdle(std::chrono::milliseconds timeout) const {
    return jobs->waitUntilIdle(timeout);
  }

 private:
  const BackgroundSubmit backgroundSubmit;  // may be empty
  qevr::Executor& executor;
  // Shared with the jobs, which may outlive the scheduler.
  const std::shared_ptr<QEVMemoryInFlightGate> jobs;
};
