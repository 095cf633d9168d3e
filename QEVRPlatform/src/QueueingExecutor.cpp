#include "QueueingExecutor.h"

#include <algorithm>
#include <iterator>
#include <mutex>

namespace qevr {

using detail::TaskStage;
using detail::TaskStateBase;

void QueueingExecutor::waitOn(std::condition_variable& cv) {
  // The analysis knows `lock` is held; std::condition_variable wants a
  // unique_lock on the raw mutex, which is lent here and taken back
  // without unlocking it.
  std::unique_lock<std::mutex> raw(lock.native(), std::adopt_lock);
  cv.wait(raw);
  raw.release();
}

void QueueingExecutor::schedule(std::shared_ptr<TaskStateBase> task) {
  {
    MutexLock guard(lock);
    task->stage = TaskStage::queued;
    queues[static_cast<std::size_t>(task->priority)].push_back(std::move(task));
    ++queuedCount;
    ++inFlight;
    onQueuedLocked();
  }
  afterQueued();
}

void QueueingExecutor::wait(TaskStateBase& task) {
  MutexLock guard(lock);
  if (task.stage == TaskStage::queued) {
    runLocked(takeLocked(task));
    return;
  }
  if (task.stage == TaskStage::finished) return;
  ++task.blockedWaiters;
  ++blockedWaiters;
  while (task.stage != TaskStage::finished)
    waitOn(taskFinished);
  --task.blockedWaiters;
  --blockedWaiters;
}

bool QueueingExecutor::isFinished(const TaskStateBase& task) {
  MutexLock guard(lock);
  return task.stage == TaskStage::finished;
}

TaskPoolLoad QueueingExecutor::load() const {
  MutexLock guard(lock);
  TaskPoolLoad result;
  result.queued = queuedCount;
  result.running = inFlight - queuedCount;
  result.blockedWaiters = blockedWaiters;
  return result;
}

bool QueueingExecutor::waitForIdle(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  MutexLock guard(lock);
  std::unique_lock<std::mutex> raw(lock.native(), std::adopt_lock);
  // Reads `inFlight` with `lock` held through `raw`, which the analysis
  // cannot follow into the predicate.
  const bool idle = drained.wait_until(
      raw, deadline, [this]() QEVR_NO_THREAD_SAFETY_ANALYSIS { return inFlight == 0; });
  raw.release();
  return idle;
}

std::shared_ptr<TaskStateBase> QueueingExecutor::popLocked() {
  for (std::size_t i = queues.size(); i-- > 0;) {
    if (queues[i].empty()) continue;
    auto next = std::move(queues[i].front());
    queues[i].pop_front();
    --queuedCount;
    next->stage = TaskStage::running;
    return next;
  }
  return nullptr;
}

std::shared_ptr<TaskStateBase> QueueingExecutor::takeLocked(TaskStateBase& task) {
  // The search starts at the back, where a task just created by its waiter
  // is.
  auto& queue = queues[static_cast<std::size_t>(task.priority)];
  auto it = std::find_if(queue.rbegin(), queue.rend(),
                         [&task](const auto& entry) { return entry.get() == &task; });
  auto taken = std::move(*it);
  queue.erase(std::next(it).base());
  --queuedCount;
  taken->stage = TaskStage::running;
  return taken;
}

void QueueingExecutor::runLocked(std::shared_ptr<TaskStateBase> task) {
  lock.unlock();
  task->run();
  lock.lock();
  task->stage = TaskStage::finished;
  const bool hasWaiters = task->blockedWaiters > 0;
  const bool idle = --inFlight == 0;
  lock.unlock();
  if (hasWaiters) taskFinished.notify_all();
  if (idle) drained.notify_all();
  // This may hold the last reference; destroying a task's result must not
  // happen under the lock, in case a destructor queues more work.
  task.reset();
  lock.lock();
}

}  // namespace qevr
