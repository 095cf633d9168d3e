#include "QEVObserverDiagnosticContextProvider.h"

QEVRDiagnosticContext QEVObserverDiagnosticContextProvider::currentContext() {
  QEVRDiagnosticContext context;
  if (auto session = sessionTracker->activeSession()) context.sessionId = session->id;
  context.currentScreen = screenTracker->currentName();
  return context;
}
