// The one process-wide object behind the QEVR facade.
#pragma once

#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRCore/QEVRDependencyContainer.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include "QEVRBackgroundWorker.h"
#include "QEVRLifecycleCoordinator.h"
#include "QEVRLogger.h"

#include <memory>
#include <optional>

// What a start recorded. Equality ignores `dependencies`.
struct QEVRRuntimeState {
  QEVRConfiguration configuration;
  QEVRDate startedAt;
  std::shared_ptr<QEVRDependencyContainer> dependencies;

  bool operator==(const QEVRRuntimeState& other) const {
    return configuration == other.configuration && startedAt == other.startedAt;
  }
};

// Owns the coordinator, the core logger, the container, the registry and the
// current worker, and carries out the start and stop orders, including the
// rollback of a failed start. Made on first use, lives as long as the process.
//
// Thread safety: `lock` guards `state` and `worker`. No lock of this class is
// held while hooks, modules or the log run; locks are never nested here.
class QEVRRuntimeStore {
 public:
  static QEVRRuntimeStore& shared();

  // Throws QEVRError::invalidConfiguration for a blank appId (before anything
  // else, even while running), or the error of a module whose start failed.
  // The start's worker and its modules' contexts hand work to `executor`.
  void start(const QEVRConfiguration& configuration,
             qevr::Executor& executor = qevr::defaultExecutor());
  void pause();
  void resume();
  void shutdown();

  bool isRunning() const;
  QEVRLifecycleState lifecycleState() const;

  QEVRLifecycleCoordinator& lifecycleCoordinator() { return coordinator; }
  QEVRLogger& logger() { return *coreLogger; }
  QEVRDependencyContainer& dependencyContainer() { return *container; }
  QEVRModuleRegistry& moduleRegistry() { return *registry; }
  std::shared_ptr<QEVRBackgroundWorker> backgroundWorker() const;
  std::optional<QEVRRuntimeState> runtimeState() const;

 private:
  QEVRRuntimeStore();

  // Constant after construction, for the life of the process.
  QEVRLifecycleCoordinator coordinator;
  const std::shared_ptr<QEVRLogger> coreLogger;
  const std::shared_ptr<QEVRDependencyContainer> container;
  const std::shared_ptr<QEVRModuleRegistry> registry;

  mutable qevr::Mutex lock;
  std::shared_ptr<QEVRBackgroundWorker> worker QEVR_GUARDED_BY(lock);
  std::optional<QEVRRuntimeState> state QEVR_GUARDED_BY(lock);
};
