// An executor whose queued tasks run only when its owner says so, on the
// owner's thread: for tests that step background work one task at a time
// and look at the state in between.
#pragma once

#include "QueueingExecutor.h"

#include <cstddef>

namespace qevr {

// Queues by priority like the pool and keeps the same waiting rules: a
// thread that waits for a task still queued here runs it itself, so waiting
// never needs anyone to call runNext. Tasks may be scheduled, waited for and
// run from any thread.
//
// Must outlive every handle that waits for one of its tasks. Tasks still
// queued when it is destroyed are dropped without running.
class ManualExecutor final : public QueueingExecutor {
 public:
  ManualExecutor() = default;
  ~ManualExecutor() override;

  // Tasks queued and not yet started.
  std::size_t pending() const QEVR_EXCLUDES(lock);

  // Runs the next task (highest priority first, then the oldest) on this
  // thread; false if none is queued.
  bool runNext() QEVR_EXCLUDES(lock);
  // Runs the tasks queued now, in that order, and not those they queue.
  // Returns how many ran.
  std::size_t runAll() QEVR_EXCLUDES(lock);
  // Runs tasks until none is queued, those that the tasks queue included.
  // Returns how many ran.
  std::size_t runUntilIdle() QEVR_EXCLUDES(lock);
};

}  // namespace qevr
