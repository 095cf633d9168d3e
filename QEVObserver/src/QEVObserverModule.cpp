#include <QEVObserver/QEVObserverModule.h>

#include "QEVComponentInteractionTracker.h"
#include "QEVGestureTracker.h"
#include "QEVNavigationTracker.h"
#include "QEVObserverDiagnosticContextProvider.h"
#include "QEVObserverRuntime.h"
#include "QEVScreenTracker.h"
#include "QEVSessionTracker.h"

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
