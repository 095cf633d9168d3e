// The observer as a module of the core.
#pragma once

#include <QEVObserver/QEVObserverEventDispatcher.h>
#include <QEVObserver/QEVObserverIntegration.h>
#include <QEVObserver/QEVObserverPrivacyOptions.h>
#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <memory>
#include <optional>

class QEVComponentInteractionTracker;
class QEVGestureTracker;
class QEVNavigationTracker;
class QEVScreenTracker;
class QEVSessionTracker;

// "com.qevr.observer". Owns one dispatcher and one set of trackers for its
// whole life; start and shutdown may alternate any number of times.
class QEVR_API QEVObserverModule : public QEVRModule {
 public:
  QEVObserverModule();

  std::string identifier() const override { return "com.qevr.observer"; }
  // Binds the runtime, starts a session and sends sessionStart to the sinks
  // registered so far. Never fails.
  void start(const QEVRModuleContext& context) override;
  void pause() override;
  void resume() override;
  // Ends the session (sessionEnd goes out while running or paused), clears
  // the activity trackers, drops every sink and unbinds the runtime.
  void shutdown() override;

  const std::shared_ptr<QEVObserverEventDispatcher>& dispatcher() const { return eventDispatcher; }
  const std::shared_ptr<QEVSessionTracker>& sessionTracker() const { return sessions; }
  const std::shared_ptr<QEVScreenTracker>& screenTracker() const { return screens; }
  const std::shared_ptr<QEVNavigationTracker>& navigationTracker() const { return navigations; }
  const std::shared_ptr<QEVComponentInteractionTracker>& componentInteractionTracker() const {
    return interactions;
  }
  const std::shared_ptr<QEVGestureTracker>& gestureTracker() const { return gestures; }

 private:
  mutable qevr::Mutex lock;
  bool isStarted QEVR_GUARDED_BY(lock) = false;
  // Constant after construction.
  const std::shared_ptr<QEVObserverEventDispatcher> eventDispatcher;
  const std::shared_ptr<QEVSessionTracker> sessions;
  const std::shared_ptr<QEVScreenTracker> screens;
  const std::shared_ptr<QEVNavigationTracker> navigations;
  const std::shared_ptr<QEVComponentInteractionTracker> interactions;
  const std::shared_ptr<QEVGestureTracker> gestures;
};
