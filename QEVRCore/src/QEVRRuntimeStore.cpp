#include "QEVRRuntimeStore.h"
#include <QEVRCore/QEVRFacade.h>

#include <QEVRPlatform/Text.h>

#include "QEVRModuleContextFactory.h"

namespace {
constexpr std::string_view kCategory = "Lifecycle";
}  // namespace

QEVRRuntimeStore& QEVRRuntimeStore::shared() {
  // Leaked on purpose: background tasks and host threads may still reach the
  // store while statics are destroyed at exit.
  static QEVRRuntimeStore* store = new QEVRRuntimeStore;
  return *store;
}

QEVRRuntimeStore::QEVRRuntimeStore()
    : coreLogger(std::make_shared<QEVRLogger>("QEVRCore", QEVRLogLevel::info,
                                              std::make_shared<QEVROSLogSink>())),
      container(std::make_shared<QEVRDependencyContainer>()),
      registry(std::make_shared<QEVRModuleRegistry>()),
      worker(QEVRBackgroundWorker::make(true)) {}

void QEVRRuntimeStore::start(const QEVRConfiguration& configuration, qevr::Executor& executor) {
  if (qevr::text::isBlank(configuration.appId)) {
    throw QEVRError::invalidConfiguration("appId must not be empty.");
  }
  if (!coordinator.beginStarting()) {
    coreLogger->log(QEVRLogLevel::warning, kCategory,
                    "Start ignored because SDK is already active");
    return;
  }
  coreLogger->setMinimumLevel(configuration.logLevel);
  container->removeAll();

  auto newWorker =
      QEVRBackgroundWorker::make(configuration.isBackgroundProcessingEnabled, executor);
  {
    qevr::MutexLock guard(lock);
    worker = newWorker;
  }

  // The container was just emptied and the four keys differ: these cannot
  // meet a duplicate.
  container->register_<QEVRConfiguration>(std::make_shared<QEVRConfiguration>(configuration));
  container->register_<QEVRLogger>(coreLogger);
  container->register_<QEVRLifecycleCoordinator>(
      std::shared_ptr<QEVRLifecycleCoordinator>(std::shared_ptr<void>(), &coordinator));
  container->register_<QEVRBackgroundWorker>(newWorker);

  // The hooks hold the registry and container, never the store: both live
  // as long as the process anyway.
  QEVRLifecycleHooks hooks;
  hooks.onStart = [modules = registry, services = container, log = coreLogger, configuration,
                   &executor] {
    modules->startAll(QEVRModuleContextFactory::make(configuration, services, log, executor));
  };
  hooks.onPause = [modules = registry] { modules->pauseAll(); };
  hooks.onResume = [modules = registry] { modules->resumeAll(); };
  hooks.onShutdown = [modules = registry] { modules->shutdownAll(); };
  coordinator.replaceHooks(std::move(hooks));

  {
    qevr::MutexLock guard(lock);
    state = QEVRRuntimeState{configuration, qevr::now(), container};
  }

  try {
    coordinator.start();
  } catch (...) {
    {
      qevr::MutexLock guard(lock);
      state.reset();
    }
    newWorker->shutdown();
    container->removeAll();
    coordinator.reset();
    throw;
  }
  coreLogger->log(QEVRLogLevel::info, kCategory, "SDK started");
}

void QEVRRuntimeStore::pause() {
  if (coordinator.pause()) {
    coreLogger->log(QEVRLogLevel::info, kCategory, "SDK paused");
  } else {
    coreLogger->log(QEVRLogLevel::warning, kCategory, "Pause ignored because SDK is not running");
  }
}

void QEVRRuntimeStore::resume() {
  if (coordinator.resume()) {
    coreLogger->log(QEVRLogLevel::info, kCategory, "SDK resumed");
  } else {
    coreLogger->log(QEVRLogLevel::warning, kCategory, "Resume ignored because SDK is not paused");
  }
}

void QEVRRuntimeStore::shutdown() {
  if (!coordinator.shutdown()) {
    coreLogger->log(QEVRLogLevel::warning, kCategory,
                    "Shutdown ignored because SDK is not running");
    return;
  }
  // Every module's shutdown() has returned by now, in reverse order.
  std::shared_ptr<QEVRBackgroundWorker> current;
  {
    qevr::MutexLock guard(lock);
    state.reset();
    current = worker;
  }
  current->shutdown();
  container->removeAll();
  coreLogger->log(QEVRLogLevel::info, kCategory, "SDK shut down");
}

bool QEVRRuntimeStore::isRunning() const {
  return coordinator.state() == QEVRLifecycleState::running;
}

QEVRLifecycleState QEVRRuntimeStore::lifecycleState() const {
  return coordinator.state();
}

std::shared_ptr<QEVRBackgroundWorker> QEVRRuntimeStore::backgroundWorker() const {
  qevr::MutexLock guard(lock);
  return worker;
}

std::optional<QEVRRuntimeState> QEVRRuntimeStore::runtimeState() const {
  qevr::MutexLock guard(lock);
  return state;
}

QEVRModuleRegistry& QEVRModuleRegistry::shared() {
  return QEVRRuntimeStore::shared().moduleRegistry();
}
