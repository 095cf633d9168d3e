#include "QEVMemoryRuntime.h"

#include <utility>

QEVMemoryRuntime& QEVMemoryRuntime::shared() {
  // Leaked on purpose: background tasks read the options during exit.
  static QEVMemoryRuntime* runtime = new QEVMemoryRuntime;
  return *runtime;
}

QEVMemoryOptions QEVMemoryRuntime::activeOptions() const {
  qevr::MutexLock guard(lock);
  return options;
}

void QEVMemoryRuntime::setActiveOptions(const QEVMemoryOptions& newOptions) {
  qevr::MutexLock guard(lock);
  options = newOptions;
}

void QEVMemoryRuntime::setDiagnosticsStoreOverride(std::shared_ptr<QEVMemoryStore> store) {
  std::shared_ptr<QEVMemoryStore> old;
  qevr::MutexLock guard(lock);
  old = std::exchange(storeOverride, std::move(store));
}

std::shared_ptr<QEVMemoryStore> QEVMemoryRuntime::diagnosticsStoreOverride() const {
  qevr::MutexLock guard(lock);
  return storeOverride;
}

bool QEVMemoryRuntime::continuity() const {
  qevr::MutexLock guard(lock);
  return isContinuityEnabled;
}

void QEVMemoryRuntime::setContinuity(bool enabled) {
  qevr::MutexLock guard(lock);
  isContinuityEnabled = enabled;
}
