#pragma once

#include <QEVObserver/QEVObserverEventDispatcher.h>
#include <QEVObserver/QEVObserverPrivacyOptions.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRPlatform/UUID.h>

#include "QEVComponentInteractionTracker.h"
#include "QEVGestureTracker.h"
#include "QEVNavigationTracker.h"
#include "QEVScreenTracker.h"

#include <memory>
#include <optional>

// The process-wide holder of what the facade needs: the bound module's
// dispatcher and activity trackers, and the privacy options, which outlive
// every module.
//
// Thread safety: `lock` guards `binding` and `storedPrivacyOptions`. It is
// taken before the dispatcher's lock (snapshot, sink registration), never
// after, and is never held while sanitising or dispatching.
class QEVObserverRuntime {
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
