#include "ManualExecutor.h"

#include <utility>
#include <vector>

namespace qevr {

using detail::TaskStage;
using detail::TaskStateBase;

ManualExecutor::~ManualExecutor() {
  // A dropped task's captures are released without the lock, and may queue
  // more as they go; those are dropped in turn.
  for (;;) {
    decltype(queues) dropped;
    {
      MutexLock guard(lock);
      if (queuedCount == 0) return;
      dropped = std::exchange(queues, {});
      queuedCount = 0;
    }
  }
}

std::size_t ManualExecutor::pending() const {
  MutexLock guard(lock);
  return queuedCount;
}

bool ManualExecutor::runNext() {
  MutexLock guard(lock);
  auto next = popLocked();
  if (!next) return false;
  runLocked(std::move(next));
  return true;
}

std::size_t ManualExecutor::runAll() {
  std::vector<std::shared_ptr<TaskStateBase>> now;
  {
    MutexLock guard(lock);
    for (std::size_t i = queues.size(); i-- > 0;)
      now.insert(now.end(), queues[i].begin(), queues[i].end());
  }
  std::size_t ran = 0;
  for (auto& task : now) {
    MutexLock guard(lock);
    // A waiter may have taken it meanwhile.
    if (task->stage != TaskStage::queued) continue;
    auto taken = takeLocked(*task);
    task.reset();
    runLocked(std::move(taken));
    ++ran;
  }
  return ran;
}

std::size_t ManualExecutor::runUntilIdle() {
  std::size_t ran = 0;
  while (runNext())
    ++ran;
  return ran;
}

}  // namespace qevr
