#pragma once

#include <QEVRCore/QEVRModule.h>

#include <memory>
#include <utility>

#include "QEVScreenTracker.h"
#include "QEVSessionTracker.h"

// Reports the active session and the current screen to the core. Takes the
// two trackers' locks one after the other, never together, so the two parts
// may come from different instants.
class QEVObserverDiagnosticContextProvider : public QEVRDiagnosticContextProviding {
 public:
  QEVObserverDiagnosticContextProvider(std::shared_ptr<QEVSessionTracker> sessions,
                                       std::shared_ptr<QEVScreenTracker> screens)
      : sessionTracker(std::move(sessions)), screenTracker(std::move(screens)) {}
  QEVRDiagnosticContext currentContext() override;

 private:
  const std::shared_ptr<QEVSessionTracker> sessionTracker;
  const std::shared_ptr<QEVScreenTracker> screenTracker;
};
