#include "QEVRBackgroundWorker.h"

#include <QEVRPlatform/Tasks.h>

#include <vector>

namespace {

qevr::TaskPriority taskPriorityFor(QEVRBackgroundPriority priority) {
  switch (priority) {
    case QEVRBackgroundPriority::background:
      return qevr::TaskPriority::background;
    case QEVRBackgroundPriority::medium:
      return qevr::TaskPriority::medium;
    case QEVRBackgroundPriority::high:
      return qevr::TaskPriority::high;
  }
  return qevr::TaskPriority::medium;
}

}  // namespace

std::shared_ptr<QEVRBackgroundWorker> QEVRBackgroundWorker::make(bool isEnabled,
                                                                 qevr::Executor& executor) {
  return std::shared_ptr<QEVRBackgroundWorker>(new QEVRBackgroundWorker(isEnabled, executor));
}

std::optional<QEVRBackgroundTaskIdentifier> QEVRBackgroundWorker::submit(
    QEVRBackgroundPriority priority, QEVRBackgroundOperation operation) {
  if (!enabled) return std::nullopt;
  const QEVRBackgroundTaskIdentifier id{QEVRUUID::random()};
  {
    qevr::MutexLock guard(lock);
    if (isShutdown) return std::nullopt;
    tasks.emplace(id, TrackedTask{});
  }

  std::weak_ptr<QEVRBackgroundWorker> weakSelf = weak_from_this();
  auto task =
      qevr::detachTask(executor, taskPriorityFor(priority),
                       [weakSelf, id, op = std::move(operation)](const std::stop_token& stop) {
                         // The worker is held only for the checks, never while `op` runs,
                         // so a running task does not keep a dropped worker alive.
                         bool live = false;
                         if (auto self = weakSelf.lock()) live = self->isLive(id);
                         if (live && !stop.stop_requested()) {
                           try {
                             op(stop);
                           } catch (...) {
                             // Background errors are dropped without a log line.
                           }
                         }
                         if (auto self = weakSelf.lock()) {
                           qevr::MutexLock guard(self->lock);
                           self->tasks.erase(id);
                         }
                       });

  bool registered = false;
  {
    qevr::MutexLock guard(lock);
    if (!isShutdown) {
      registered = true;
      // If the entry is gone the task has already finished: leave the table.
      if (auto it = tasks.find(id); it != tasks.end()) {
        it->second.cancel = [task] { task.cancel(); };
      }
    }
  }
  if (!registered) {
    task.cancel();
    return std::nullopt;
  }
  return id;
}

bool QEVRBackgroundWorker::isLive(const QEVRBackgroundTaskIdentifier& id) const {
  qevr::MutexLock guard(lock);
  return !isShutdown && tasks.count(id) != 0;
}

void QEVRBackgroundWorker::shutdown() {
  std::vector<std::function<void()>> cancels;
  {
    qevr::MutexLock guard(lock);
    isShutdown = true;
    for (auto& [id, tracked] : tasks) {
      if (tracked.cancel) cancels.push_back(std::move(tracked.cancel));
    }
    tasks.clear();
  }
  for (const auto& cancel : cancels)
    cancel();
}

bool QEVRBackgroundWorker::isShutDown() const {
  qevr::MutexLock guard(lock);
  return isShutdown;
}

size_t QEVRBackgroundWorker::trackedTaskCount() const {
  qevr::MutexLock guard(lock);
  return tasks.size();
}
