// Tracked background work for one system start.
#pragma once

#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRPlatform/UUID.h>

#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>

struct QEVRBackgroundTaskIdentifier {
  QEVRUUID rawValue;
  bool operator==(const QEVRBackgroundTaskIdentifier&) const = default;
};

template <>
struct std::hash<QEVRBackgroundTaskIdentifier> {
  size_t operator()(const QEVRBackgroundTaskIdentifier& id) const noexcept {
    return std::hash<QEVRUUID>()(id.rawValue);
  }
};

// background, medium and high map to the pool's background, medium and high
// priorities.
enum class QEVRBackgroundPriority { background, medium, high };

// Runs operations as tasks of its executor, keeps track of what is in
// flight and, at shutdown, cancels all of it without waiting.
//
// Thread safety: `lock` guards `isShutdown` and `tasks` and is held only for
// their reads and writes, never while an operation or a cancel closure runs.
// A shutdown() that falls between the table entry and the handle's
// registration in submit() is caught at the registration, which cancels the
// task itself: no task escapes shutdown. Tasks hold the worker weakly, so a
// dropped worker is not kept alive by its running tasks.
class QEVRBackgroundWorker : public std::enable_shared_from_this<QEVRBackgroundWorker> {
 public:
  static std::shared_ptr<QEVRBackgroundWorker> make(
      bool isEnabled, qevr::Executor& executor = qevr::defaultExecutor());

  // Starts `operation` on a new task. Absent when the worker is disabled or
  // shut down; `operation` then never runs. A task cancelled before its body
  // runs ends without running `operation`.
  std::optional<QEVRBackgroundTaskIdentifier> submit(QEVRBackgroundPriority priority,
                                                     QEVRBackgroundOperation operation);

  // Cancels every tracked task and refuses new ones. Does not wait. Safe to
  // call more than once.
  void shutdown();

  bool isEnabled() const { return enabled; }
  bool isShutDown() const;
  size_t trackedTaskCount() const;

 private:
  QEVRBackgroundWorker(bool isEnabled, qevr::Executor& taskExecutor)
      : enabled(isEnabled), executor(taskExecutor) {}

  // Empty `cancel` is the pending state: entered, task handle not yet known.
  struct TrackedTask {
    std::function<void()> cancel;
  };

  // Whether a task may still run its operation: not shut down, still tracked.
  bool isLive(const QEVRBackgroundTaskIdentifier& id) const;

  mutable qevr::Mutex lock;
  // Constant after construction.
  const bool enabled;
  qevr::Executor& executor;
  bool isShutdown QEVR_GUARDED_BY(lock) = false;
  std::unordered_map<QEVRBackgroundTaskIdentifier, TrackedTask> tasks QEVR_GUARDED_BY(lock);
};
