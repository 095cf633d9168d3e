#include <QEVObserver/QEVObserverModule.h>

using State = QEVObserverEventDispatcher::State;

QEVObserverModule::QEVObserverModule()
    : eventDispatcher(std::make_shared<QEVObserverEventDispatcher>()),
      sessions(std::make_shared<QEVSessionTracker>()),
      screens(std::make_shared<QEVScreenTracker>()),
      navigations(std::make_shared<QEVNavigationTracker>()),
      interactions(std::make_shared<QEVComponentInteractionTracker>()),
      gestures(std::make_shared<QEVGestureTracker>()) {}

void QEVObserverModule::start(const QEVRModuleContext& context) {
  {
    qevr::MutexLock guard(lock);
    if (isStarted) return;
    isStarted = true;
  }
  eventDispatcher->setState(State::running);
  QEVObserverRuntime::shared().bind(std::make_shared<QEVObserverRuntime::Binding>(
      QEVObserverRuntime::Binding{eventDispatcher, screens, navigations, interactions, gestures}));
  const QEVObserverSession session = sessions->startSession(QEVRUUID::random(), qevr::now());
  eventDispatcher->setActiveSessionId(session.id);
  context.registerDiagnosticContextProvider(
      std::make_shared<QEVObserverDiagnosticContextProvider>(sessions, screens));
  // A sessionStart event has no condition to break: this cannot throw.
  QEVObserverEvent started(QEVRUUID::random(), QEVObserverEventType::sessionStart, qevr::now(),
                           session.id, std::nullopt, std::nullopt,
                           {{"startedAt", QEVObserverMetadataValue(session.startedAt)}});
  eventDispatcher->dispatch(std::move(started), {State::running});
}

void QEVObserverModule::pause() {
  {
    qevr::MutexLock guard(lock);
    if (!isStarted) return;
  }
  eventDispatcher->pauseIfRunning();
}

void QEVObserverModule::resume() {
  {
    qevr::MutexLock guard(lock);
    if (!isStarted) return;
  }
  eventDispatcher->resumeIfPaused();
}

void QEVObserverModule::shutdown() {
  {
    qevr::MutexLock guard(lock);
    isStarted = false;
  }
  if (auto ended = sessions->endSession(qevr::now())) {
    QEVObserverMetadata metadata{{"startedAt", QEVObserverMetadataValue(ended->startedAt)}};
    if (ended->endedAt)
      metadata.insert_or_assign("endedAt", QEVObserverMetadataValue(*ended->endedAt));
    if (ended->duration)
      metadata.insert_or_assign("duration", QEVObserverMetadataValue(*ended->duration));
    try {
      QEVObserverEvent event(QEVRUUID::random(), QEVObserverEventType::sessionEnd, qevr::now(),
                             ended->id, std::nullopt, std::nullopt, std::move(metadata));
      eventDispatcher->dispatch(std::move(event), {State::running, State::paused});
    } catch (const QEVObserverEventValidationError&) {
      // Cannot happen for this type; nothing to send if it did.
    }
  }
  eventDispatcher->setActiveSessionId(std::nullopt);
  screens->clear();
  navigations->clear();
  interactions->clear();
  gestures->clear();
  eventDispatcher->shutdown();
  QEVObserverRuntime::shared().unbind(eventDispatcher.get());
}

QEVObserverRuntime& QEVObserverRuntime::shared() {
  // Leaked on purpose: host threads may call the facade during exit.
  static QEVObserverRuntime* runtime = new QEVObserverRuntime;
  return *runtime;
}

void QEVObserverRuntime::bind(std::shared_ptr<const Binding> newBinding) {
  std::shared_ptr<const Binding> old;
  qevr::MutexLock guard(lock);
  old = std::exchange(binding, std::move(newBinding));
}

void QEVObserverRuntime::unbind(const QEVObserverEventDispatcher* dispatcher) {
  std::shared_ptr<const Binding> old;
  qevr::MutexLock guard(lock);
  if (binding && binding->dispatcher.get() == dispatcher) old = std::exchange(binding, nullptr);
}

std::optional<QEVObserverRuntime::Snapshot> QEVObserverRuntime::snapshot() const {
  qevr::MutexLock guard(lock);
  if (!binding) return std::nullopt;
  // Lock order: runtime, then dispatcher.
  if (binding->dispatcher->state() != State::running) return std::nullopt;
  return Snapshot{binding, storedPrivacyOptions};
}

QEVObserverPrivacyOptions QEVObserverRuntime::privacyOptions() const {
  qevr::MutexLock guard(lock);
  return storedPrivacyOptions;
}

void QEVObserverRuntime::configure(const QEVObserverPrivacyOptions& options) {
  qevr::MutexLock guard(lock);
  storedPrivacyOptions = options;
}

std::optional<QEVRUUID> QEVObserverRuntime::registerEventSink(
    std::shared_ptr<QEVObserverEventSink> sink) {
  if (!sink) return std::nullopt;
  qevr::MutexLock guard(lock);
  if (!binding) return std::nullopt;
  const QEVRUUID id = QEVRUUID::random();
  binding->dispatcher->addSink(id, std::move(sink));
  return id;
}

void QEVObserverRuntime::removeEventSink(const QEVRUUID& identifier) {
  qevr::MutexLock guard(lock);
  if (binding) binding->dispatcher->removeSink(identifier);
}

namespace QEVObserverIntegration {

std::shared_ptr<QEVRModule> makeModule() {
  return std::make_shared<QEVObserverModule>();
}

std::optional<QEVRUUID> registerEventSink(std::shared_ptr<QEVObserverEventSink> sink) {
  return QEVObserverRuntime::shared().registerEventSink(std::move(sink));
}

void removeEventSink(const QEVRUUID& identifier) {
  QEVObserverRuntime::shared().removeEventSink(identifier);
}

}  // namespace QEVObserverIntegration
