// The observer as a module of the core, and the process-wide runtime through
// which the facade finds the started module's dispatcher and trackers.
#pragma once

#include <QEVObserver/QEVObserverEventDispatcher.h>
#include <QEVObserver/QEVObserverIntegration.h>
#include <QEVObserver/QEVObserverPrivacyOptions.h>
#include <QEVObserver/QEVObserverTrackers.h>
#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <memory>
#include <optional>

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

// The process-wide holder of what the facade needs: the bound module's
// dispatcher and activity trackers, and the privacy options, which outlive
// every module.
//
// Thread safety: `lock` guards `binding` and `storedPrivacyOptions`. It is
// taken before the dispatcher's lock (snapshot, sink registration), never
// after, and is never held while sanitising or dispatching.
class QEVR_API QEVObserverRuntime {
 public:
  struct Binding {
    std::shared_ptr<QEVObserverEventDispatcher> dispatcher;
    std::shared_ptr<QEVScreenTracker> screenTracker;
    std::shared_ptr<QEVNavigationTracker> navigationTracker;
    std::shared_ptr<QEVComponentInteractionTracker> componentInteractionTracker;
    std::shared_ptr<QEVGestureTracker> gestureTracker;
  };

  struct Snapshot {
    std::shared_ptr<const Binding> binding;
    QEVObserverPrivacyOptions privacyOptions;
  };

  static QEVObserverRuntime& shared();

  void bind(std::shared_ptr<const Binding> binding);
  // Clears the binding only if it holds this dispatcher.
  void unbind(const QEVObserverEventDispatcher* dispatcher);

  // Absent unless a module is bound and its dispatcher is running.
  std::optional<Snapshot> snapshot() const;

  QEVObserverPrivacyOptions privacyOptions() const;
  void configure(const QEVObserverPrivacyOptions& options);

  std::optional<QEVRUUID> registerEventSink(std::shared_ptr<QEVObserverEventSink> sink);
  void removeEventSink(const QEVRUUID& identifier);

 private:
  QEVObserverRuntime() = default;

  mutable qevr::Mutex lock;
  std::shared_ptr<const Binding> binding QEVR_GUARDED_BY(lock);
  QEVObserverPrivacyOptions storedPrivacyOptions QEVR_GUARDED_BY(lock);
};
